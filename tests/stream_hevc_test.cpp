// The HEVC track: where a sample's picture starts, and the start code put back on the way out of a file.
#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/Hvcc.h"
#include "stream/plugin/mp4/common/StreamHevc.h"

using namespace streamtest;
using namespace kiv::plugin::mov;

namespace {

Bytes Be32(uint32_t v) {
  return {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 8),
          static_cast<unsigned char>(v)};
}

struct HevcRig : MuxRig {
  HevcSets sets;
  MediaPtr media = NewHevcMedia(sets);
  IStream* st = nullptr;

  bool Make() {
    st = New("hevc", 1);
    return st && st->setString("frameRate", "25/1") && Config(st, media.get());
  }
};

}  // namespace

TEST(StreamHevc, PictureOffsetStopsAtSeiAndTheSliceKindsItLooksFor) {
  const Bytes sets = Cat({HNal(32, 8), HNal(33, 12), HNal(34, 4)});
  const int behindSets = static_cast<int>(sets.size());
  const struct {
    const char* what;
    Bytes sample;
    int offset;
  } cases[] = {
      {"IDR_W_RADL behind the sets", Cat({sets, HNal(19, 20)}), behindSets},
      {"CRA behind the sets", Cat({sets, HNal(21, 20)}), behindSets},
      {"prefix SEI behind the sets", Cat({sets, HNal(39, 5), HNal(19, 20)}), behindSets},
      {"suffix SEI", Cat({HNal(35, 1), HNal(40, 5)}), 7},
      {"delimiter cut in front of a trailing picture", Cat({HNal(35, 1), HNal(1, 20)}), 7},
      {"TRAIL_N, TSA_N, RASL_N", Cat({HNal(0, 9)}), 0},
      {"IDR_N_LP is not looked for: whole", Cat({sets, HNal(20, 20)}), 0},
      {"BLA is not looked for: whole", Cat({sets, HNal(16, 20)}), 0},
      {"RASL_R is not looked for: whole", Cat({HNal(35, 1), HNal(9, 20)}), 0},
      {"a slice too close to the end is not seen", Cat({HNal(35, 1), Bytes{0, 0, 0, 1, 0x02}}), 0},
      {"three-byte start codes are not seen", Bytes{0, 0, 1, 0x02, 0x01, 0xAB, 0xAB, 0xAB}, 0},
      {"empty", Bytes(), 0},
  };
  for (const auto& c : cases)
    EXPECT_EQ(HevcPictureOffset(c.sample.empty() ? nullptr : c.sample.data(), static_cast<int>(c.sample.size())),
              c.offset)
        << c.what;
}

TEST(StreamHevc, DemuxedSamplesGetTheirStartCodeBackOrFail) {
  HevcRig r;
  StreamHevc st;
  LogCapture log(kiv::dbg::E);
  const Bytes body = {0x02, 0x01, 0xAA, 0xBB, 0xCC};
  const struct {
    const char* what;
    Bytes sample;
    bool ok;
  } cases[] = {
      {"one unit", Cat({Be32(5), body}), true},
      {"several units behind one length", Cat({Be32(11), body, Bytes{0, 0, 0, 1, 0x02, 0x01}}), true},
      {"length 1", Cat({Be32(1), Bytes{0x46, 0x01, 0x50}}), true},
      {"two units of their own lengths", Cat({Be32(2), Bytes{0x46, 0x01}, Be32(5), body}), false},
      {"a length beyond the sample", Cat({Be32(9), body}), false},
      {"shorter than a length", Bytes{0, 0, 1}, false},
  };
  for (const auto& c : cases) {
    Packet* raw = MakePacket(nullptr, c.sample, 0, 0, false).release();
    Packet* out = st.demuxUpdatePacket(r.io, raw);
    if (!c.ok) {
      EXPECT_EQ(out, kiv::stream::PacketError()) << c.what;
      continue;  // the track released it
    }
    ASSERT_EQ(out, raw) << c.what;
    PacketPtr back(out);
    Bytes expected = c.sample;
    expected[0] = expected[1] = expected[2] = 0;
    expected[3] = 1;
    EXPECT_EQ(Bytes(out->Data(), out->Data() + out->Size()), expected) << c.what;
  }
  EXPECT_EQ(log.Count("HVC codec frame is broken!"), 3u);
  EXPECT_EQ(st.demuxUpdatePacket(r.io, nullptr), nullptr);
  EXPECT_EQ(st.demuxUpdatePacket(r.io, kiv::stream::PacketError()), kiv::stream::PacketError());
}
