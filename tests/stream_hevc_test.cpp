// The HEVC track: its trak tree, the parameter sets cut from samples into "hvcC", one length a sample,
// and the start code put back on the way out of a file.
#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "LogCapture.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/Hvcc.h"
#include "stream/plugin/mp4/common/StreamHevc.h"
#include "stream/plugin/mp4/common/Stsd.h"

using namespace streamtest;
using namespace kiv::plugin::mov;

namespace {

// Two-byte NAL headers: type in bits 1-6 of the first byte, temporal id + 1 of 1 in the second.
Bytes HNal(int type, size_t n, unsigned char fill = 0xAB) {
  Bytes b;
  b.reserve(6 + n);
  for (unsigned char c : {0, 0, 0, 1}) b.push_back(c);
  b.push_back(static_cast<unsigned char>(type << 1));
  b.push_back(0x01);
  b.resize(6 + n, fill);
  return b;
}

// The parameter sets of a 64x48 stream as libx265 writes them, kept alive for the media.
struct HevcSets {
  static constexpr unsigned char kVps[] = {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60, 0x00, 0x00, 0x03,
                                           0x00, 0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x3c, 0x95,
                                           0x94, 0x09};
  static constexpr unsigned char kSps[] = {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00,
                                           0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x3c, 0xa0, 0x08, 0x08, 0x06,
                                           0x01, 0xe5, 0x95, 0x94, 0xa4, 0x93, 0x2b, 0xc0, 0x40};
  static constexpr unsigned char kPps[] = {0x44, 0x01, 0xc1, 0x72, 0xb4, 0x62, 0x40};
  Bytes extra;
  HevcSets() {
    for (const Bytes& set : {Bytes(std::begin(kVps), std::end(kVps)), Bytes(std::begin(kSps), std::end(kSps)),
                             Bytes(std::begin(kPps), std::end(kPps))}) {
      const Bytes sc = {0, 0, 0, 1};
      extra.insert(extra.end(), sc.begin(), sc.end());
      extra.insert(extra.end(), set.begin(), set.end());
    }
  }
};

MediaPtr NewHevcMedia(HevcSets& sets, const char* structure = nullptr) {
  MediaPtr m(IMedia::New("hevc"));
  m->Extra(sets.extra.data(), static_cast<int>(sets.extra.size()));
  unsigned char* base = const_cast<unsigned char*>(m->Extra());
  const unsigned nv = sizeof HevcSets::kVps, ns = sizeof HevcSets::kSps, np = sizeof HevcSets::kPps;
  m->Set("width", 64);
  m->Set("height", 48);
  m->Set("interlace", false);
  m->Set("profile", 1u);
  m->Set("level", 60u);
  m->Set("vps", base + 4);
  m->Set("ivps", nv);
  m->Set("sps", base + 8 + nv);
  m->Set("isps", ns);
  m->Set("pps", base + 12 + nv + ns);
  m->Set("ipps", np);
  if (structure) m->Set("struct", Fcc(structure));
  return m;
}

struct HevcRig : MuxRig {
  HevcSets sets;
  MediaPtr media;
  StreamHevc* st = nullptr;

  explicit HevcRig(const char* structure = nullptr) : media(NewHevcMedia(sets, structure)) {}
  bool Make() {
    st = dynamic_cast<StreamHevc*>(New("hevc", 1));
    if (!st || !st->setString("frameRate", "25/1")) return false;
    return Config(st, media.get());
  }
  bool Add(const Bytes& sample, long long pts, bool key = false) {
    PacketPtr p = MakePacket(media.get(), sample, pts, 40 * kMs, key);
    return st->AddPacket(*p, io, 0);
  }
};

Bytes Be32(uint32_t v) {
  return {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16), static_cast<unsigned char>(v >> 8),
          static_cast<unsigned char>(v)};
}

}  // namespace

TEST(StreamHevc, FoundByEveryCodecWordOfItsRow) {
  for (const char* word : {"hevc", "h265", "hvc1"}) {
    MuxRig rig;
    IStream* st = rig.New(word);
    EXPECT_NE(dynamic_cast<StreamHevc*>(st), nullptr) << word;
  }
  MuxRig rig;
  EXPECT_EQ(dynamic_cast<StreamHevc*>(rig.New("h264")), nullptr) << "the H.264 track keeps its words";
}

TEST(StreamHevc, PictureOffsetStopsAtSeiAndTheSliceKindsItLooksFor) {
  const Bytes sets = Cat({HNal(32, 8), HNal(33, 12), HNal(34, 4)});
  const struct {
    const char* what;
    Bytes sample;
    int offset;
  } cases[] = {
      {"IDR_W_RADL behind the sets", Cat({sets, HNal(19, 20)}), static_cast<int>(sets.size())},
      {"CRA behind the sets", Cat({sets, HNal(21, 20)}), static_cast<int>(sets.size())},
      {"prefix SEI behind the sets", Cat({sets, HNal(39, 5), HNal(19, 20)}), static_cast<int>(sets.size())},
      {"suffix SEI", Cat({HNal(35, 1), HNal(40, 5)}), 7},
      {"delimiter cut in front of a trailing picture", Cat({HNal(35, 1), HNal(1, 20)}), 7},
      {"TRAIL_N, TSA_N, RASL_N", Cat({HNal(0, 9)}), 0},
      {"RASL_N after a delimiter", Cat({HNal(35, 1), HNal(8, 9)}), 7},
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

TEST(StreamHevc, TrakTreeHasAnEditListAlwaysASyncTableAndNoSdtp) {
  const struct {
    const char* what;
    const char* structure;
    bool mp4, stblOrder, iosBoxes;
    const char* stbl;
    const char* entry;
  } cases[] = {
      {"mov", nullptr, false, false, false, "stsd,stts,stss,stsc,stsz,stco", "hvcC"},
      {"mp4 with colour", nullptr, true, false, false, "stsd,stts,stss,stsc,stsz,stco", "hvcC,colr"},
      {"B-frames: ctts", "ibbp", false, false, false, "stsd,stts,ctts,stss,stsc,stsz,stco", "hvcC"},
      {"all intra keeps stss", "iiii", false, false, false, "stsd,stts,stss,stsc,stsz,stco", "hvcC"},
      {"stbl_order puts stss last", nullptr, false, true, false, "stsd,stts,stsc,stsz,stco,stss", "hvcC"},
      {"no sdtp and no tapt with the iOS boxes", nullptr, false, false, true, "stsd,stts,stss,stsc,stsz,stco", "hvcC"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    HevcRig r(c.structure);
    if (c.mp4) r.tags->Mp4Flavour();
    r.tags->stbl_order = c.stblOrder;
    r.tags->ios_support_box_add = c.iosBoxes;
    r.tags->video_has_edts = false;  // no tag decides for this track
    ASSERT_TRUE(r.Make());
    IBox* trak = r.st->Track();
    EXPECT_EQ(ChildCodes(trak), "tkhd,edts,mdia");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), c.stbl);
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "hvc1")), c.entry);
    auto* hvc1 = FindBox<chvc1>(trak, "hvc1");
    ASSERT_NE(hvc1, nullptr);
    EXPECT_EQ(std::make_tuple(hvc1->_width, hvc1->_height, hvc1->_depth), std::make_tuple(64, 48, 24));
    EXPECT_EQ(r.st->_extraSize, sizeof HevcSets::kVps + sizeof HevcSets::kSps + sizeof HevcSets::kPps);
  }
}

TEST(StreamHevc, HvccCarriesTheMediasSetsAndDecodesItsProfileFromThem) {
  HevcRig r;
  ASSERT_TRUE(r.Make());
  const Bytes box = WrittenBox(r.st->Track(), "hvcC");
  const size_t nv = sizeof HevcSets::kVps, ns = sizeof HevcSets::kSps, np = sizeof HevcSets::kPps;
  ASSERT_EQ(box.size(), 31 + 15 + nv + ns + np);
  // From the VPS without its emulation prevention bytes.
  const unsigned char ptl[] = {0x01, 0x60, 0, 0, 0, 0x90, 0, 0, 0, 0, 0, 0x3c};
  EXPECT_EQ(Bytes(box.begin() + 9, box.begin() + 21), Bytes(std::begin(ptl), std::end(ptl)))
      << "profile, tier and level from the VPS";
  EXPECT_EQ(box[30], 3) << "three arrays";
  auto array = [](unsigned char type, const unsigned char* set, size_t n) {
    return Cat({Bytes{type, 0, 1, static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)}, Bytes(set, set + n)});
  };
  const Bytes expected = Cat({array(0x20, HevcSets::kVps, nv), array(0x21, HevcSets::kSps, ns), array(0x22, HevcSets::kPps, np)});
  EXPECT_EQ(Bytes(box.begin() + 31, box.end()), expected);
}

TEST(StreamHevc, SamplesLoseTheirParameterSetsAndKeepOneLength) {
  HevcRig r;
  ASSERT_TRUE(r.Make());
  const Bytes sets = Cat({HNal(32, 8), HNal(33, 12), HNal(34, 4)});
  const Bytes idr = HNal(19, 30), sei = HNal(39, 6), trail = HNal(1, 17), odd = HNal(20, 11);
  const struct {
    const char* what;
    Bytes sample;
    Bytes stored;  // what the file holds behind the length
  } cases[] = {
      {"sets and an IDR slice: the slice alone", Cat({sets, idr}), Bytes(idr.begin() + 4, idr.end())},
      {"SEI and slice: both behind one length", Cat({sei, trail}), Cat({Bytes(sei.begin() + 4, sei.end()), trail})},
      {"a slice alone", trail, Bytes(trail.begin() + 4, trail.end())},
      {"nothing looked for: whole", Cat({sets, odd}), Cat({Bytes(sets.begin() + 4, sets.end()), odd})},
  };
  unsigned long long at = r.io.Position();
  size_t n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(r.Add(c.sample, static_cast<long long>(n) * 40 * kMs, n == 0));
    const std::vector<ChunkParam>& list = *r.st->MuxChunkList();
    ASSERT_EQ(list.size(), ++n);
    EXPECT_EQ(list.back().size, c.stored.size() + 4);
    EXPECT_EQ(list.back().offset, at);
    EXPECT_EQ(r.At(at, c.stored.size() + 4), Cat({Be32(static_cast<uint32_t>(c.stored.size())), c.stored}));
    at += c.stored.size() + 4;
  }
  EXPECT_EQ(r.io.Position(), static_cast<long long>(at));
}

TEST(StreamHevc, MissingMediaAttributesFailWithTheirOwnMessage) {
  const struct {
    const char* key;
    const char* says;
  } cases[] = {
      {"width", "!_media->Get(\"width\", width)"},    {"height", "!_media->Get(\"height\", height)"},
      {"interlace", "!_media->Get(\"interlace\", interlace)"},
      {"profile", "!_media->Get(\"profile\", profile)"}, {"level", "!_media->Get(\"level\", level)"},
      {"pps", "!_media->Get(\"pps\", pps)"},          {"ipps", "!_media->Get(\"ipps\", ipps)"},
      {"sps", "!_media->Get(\"sps\", sps)"},          {"isps", "!_media->Get(\"isps\", isps)"},
      {"vps", "!_media->Get(\"vps\", vps)"},          {"ivps", "!_media->Get(\"ivps\", ivps)"},
  };
  for (const auto& c : cases) {
    HevcRig r;
    MediaPtr without = WithoutAttr(r.media.get(), "hevc", c.key);
    auto* st = dynamic_cast<StreamHevc*>(r.New("hevc"));
    ASSERT_NE(st, nullptr);
    LogCapture log(kiv::dbg::E);
    st->MuxReset();
    EXPECT_FALSE(st->MuxConfig(r.mdat, without.get(), r.tags, &r.para)) << c.key;
    EXPECT_TRUE(log.Has(c.says)) << c.key;
  }
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
    PacketPtr p = MakePacket(nullptr, c.sample, 0, 0, false);
    Packet* raw = p.release();
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
  EXPECT_TRUE(log.Has("IStream GetPacket null!") && log.Has("IStream GetPacket failed!"));
}

TEST(StreamHevc, GroupsOfSamplesCloseTheirChunkInTheLastRecordAndDropAShortRest) {
  for (unsigned spc : {1u, 3u}) {
    SCOPED_TRACE("samples a chunk " + std::to_string(spc));
    HevcRig r;
    r.tags->videosampleperchunk = spc;
    r.tags->audio_chunk_first = 0;  // the video leads: no wait for audio
    ASSERT_TRUE(r.Make());
    std::vector<unsigned long long> starts;
    for (int i = 0; i < 7; ++i) {
      starts.push_back(static_cast<unsigned long long>(r.io.Position()));
      ASSERT_TRUE(r.Add(HNal(i ? 1 : 19, 10 + static_cast<size_t>(i)), i * 40 * kMs, i == 0));
    }
    ASSERT_TRUE(r.st->CleanFifoData(r.io, 0));
    const std::vector<ChunkParam>& list = *r.st->MuxChunkList();
    ASSERT_EQ(list.size(), spc == 1 ? 7u : 6u) << "only whole groups are written";
    for (size_t i = 0; i < list.size(); ++i) {
      EXPECT_EQ(list[i].size, 16 + i) << i;
      EXPECT_EQ(list[i].count, spc) << i;
      // A group's position stands in its last record: where its first sample went.
      const bool last = (i + 1) % spc == 0;
      EXPECT_EQ(list[i].offset, last ? (spc == 1 ? starts[i] : list[i].offset) : 0u) << i;
    }
    if (spc == 3) {
      // The groups were written when their third packet came, and at the end: positions of the
      // group's first bytes in the output.
      EXPECT_EQ(list[2].offset, starts[2]);
      EXPECT_EQ(list[5].offset, starts[5]);
      EXPECT_EQ(r.At(list[2].offset, 4), Be32(12)) << "the group starts with its first sample's length";
      EXPECT_EQ(r.io.Position(), static_cast<long long>(starts[5] + 19 + 20 + 21)) << "the seventh is not written";
    }
  }
}
