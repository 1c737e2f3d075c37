// The H.264 helpers as a track of another base uses them: the trak built without a stream, and the
// heads of samples rewritten without one.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "BoxBytes.h"
#include "LogCapture.h"
#include "StreamRig.h"
#include "stream/plugin/mp4/common/AvcNal.h"
#include "stream/plugin/mp4/common/AvcTrak.h"
#include "stream/plugin/mp4/common/Box.h"

using namespace streamtest;
using namespace kiv::plugin::mov;
using boxtest::kit::H;

// With the plain tables, the trak built on its own is byte for byte the trak of the H.264 track, for
// every profile switch that changes its shape; and it fails where the track fails.
TEST(AvcTrak, BuiltWithoutAStreamIsTheTrackTrak) {
  struct Case {
    const char* name;
    void (*tags)(videoTags*);
    uint32_t structure;
    bool use64;
  } cases[] = {
      {"mov", [](videoTags*) {}, 0, false},
      {"mp4", [](videoTags* t) { t->Mp4Flavour(); }, 0, false},
      {"ibbp, ios boxes", [](videoTags* t) { t->ios_support_box_add = 1; }, Fcc("ibbp"), false},
      {"iiii, stss last, co64", [](videoTags* t) { t->stbl_order = 1; }, Fcc("iiii"), true},
      {"stss last", [](videoTags* t) { t->stbl_order = 1; }, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    H264Sets sets;
    MediaPtr media = NewH264Media(sets);
    if (c.structure) media->Set("struct", c.structure);
    MuxRig rig;
    c.tags(rig.tags);
    IStream* st = rig.New("h264");
    ASSERT_TRUE(st && st->setString("frameRate", "25/1"));
    st->_use64 = c.use64;
    ASSERT_TRUE(rig.Config(st, media.get()));

    AvcTrakSetup setup;
    setup.tags = rig.tags;
    setup.media = media.get();
    setup.use64 = c.use64;
    setup.trackId = st->TrackID();
    kiv::base::TimeScale scale;
    setup.scale = &scale;
    AvcTrak built;
    ASSERT_TRUE(BuildAvcTrak(setup, built));
    std::unique_ptr<IBox> own(built.trak);
    EXPECT_EQ(MuxRig::Written(built.trak), MuxRig::Written(st->Track()));
    EXPECT_EQ(scale.Scale(), st->TimeScale());
    EXPECT_EQ(built.structure, c.structure);
    EXPECT_EQ(built.extraSize, sets.sps.size() + sets.pps.size());
  }

  LogCapture log(kiv::dbg::E);
  H264Sets sets;
  MediaPtr noPps = WithoutAttr(NewH264Media(sets).get(), "h264", "pps");
  MuxRig rig;
  AvcTrakSetup setup;
  setup.tags = rig.tags;
  setup.media = noPps.get();
  AvcTrak built;
  EXPECT_FALSE(BuildAvcTrak(setup, built));
  std::unique_ptr<IBox> own(built.trak);
  EXPECT_NE(built.trak, nullptr);  // the boxes made so far stay with the caller
  EXPECT_TRUE(log.Has("!_media->Get(\"pps\", pps)"));
}

// What goes to the file in front of the slice data, for samples the encoder should not give but may.
TEST(AvcNal, HeadsOfSamplesWithoutASliceOrShorterThanAStartCode) {
  struct Case {
    const char* name;
    Bytes sample;
    int offset;  // of the slice's start code
    Bytes head;  // written
  } cases[] = {
      {"slice alone", Nal(0x41, 4), 0, H("00000005")},
      {"type 5 behind parameter sets", Cat({Nal(0x67, 2), Nal(0x68, 1), Nal(0x25, 3)}), 13,
       Cat({H("00000003 67ABAB 00000002 68AB"), H("00000004")})},
      // No slice found: the head is the first four bytes, start code and all.
      {"less than six bytes at the slice", Cat({Nal(0x67, 2), H("00000001 65")}), 0, H("00000001")},
      {"shorter than a start code and a unit", H("0102030405"), 0, H("01020304")},
      {"empty", Bytes(), 0, H("00000000")},
  };
  LogCapture quiet(kiv::dbg::E);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const unsigned char* data = c.sample.empty() ? nullptr : c.sample.data();
    const int size = static_cast<int>(c.sample.size());
    EXPECT_EQ(AvcSliceOffset(data, size), c.offset);
    kiv::base::IOBuffer io;
    unsigned char scratch[256];
    EXPECT_EQ(WriteAvcHead(io, data, size, scratch), static_cast<long long>(c.head.size()));
    EXPECT_EQ(Bytes(io.Data(), io.Data() + io.Size()), c.head);
  }
}
