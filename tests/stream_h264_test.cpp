// The H.264 track: trak trees, start codes to lengths, chunk groups, the wait for the leader, tables on file.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "LogCapture.h"
#include "StblTestUtil.h"
#include "StreamRig.h"
#include "stream/base/io/File.h"
#include "stream/plugin/mp4/common/StreamH264.h"
#include "stream/plugin/mp4/common/Stsd.h"

using namespace streamtest;
using namespace kiv::plugin::mov;
using stbltest::Fields;
using stbltest::Rec;
using stbltest::H;
using stbltest::Table;

namespace {

struct H264Rig : MuxRig {
  H264Sets sets;
  MediaPtr media = NewH264Media(sets);
  StreamH264* st = nullptr;

  // Made, with the flags the engine sets before the configuration.
  bool Make(bool use64 = false, bool version1 = false, bool concate = false) {
    st = dynamic_cast<StreamH264*>(New("h264", 1));
    if (!st || !st->setString("frameRate", "25/1")) return false;
    st->_use64 = use64;
    st->_version1 = version1;
    st->_concate = concate;
    return Config(st, media.get());
  }
  bool Add(const Bytes& sample, long long pts, bool key = false, unsigned long long leader = 0) {
    PacketPtr p = MakePacket(media.get(), sample, pts, 40 * kMs, key);
    return st->AddPacket(*p, io, leader);
  }
  std::vector<ChunkParam>& List() { return *st->MuxChunkList(); }
};

// Start codes of an Annex-B sample replaced by the lengths of the units behind them.
Bytes LengthPrefixed(const Bytes& annexB) {
  std::vector<size_t> starts;
  for (size_t i = 0; i + 4 <= annexB.size(); ++i)
    if (annexB[i] == 0 && annexB[i + 1] == 0 && annexB[i + 2] == 0 && annexB[i + 3] == 1) starts.push_back(i);
  Bytes out = annexB;
  for (size_t k = 0; k < starts.size(); ++k) {
    const size_t end = k + 1 < starts.size() ? starts[k + 1] : annexB.size();
    const uint32_t len = static_cast<uint32_t>(end - starts[k] - 4);
    for (int b = 0; b < 4; ++b) out[starts[k] + b] = static_cast<unsigned char>(len >> (24 - 8 * b));
  }
  return out;
}

}  // namespace

TEST(StreamH264, TrakTreeOfBothProfilesAndWhatTagsAndMediaChange) {
  for (bool mp4 : {false, true}) {
    SCOPED_TRACE(mp4 ? "mp4" : "mov");
    H264Rig r;
    if (mp4) r.tags->Mp4Flavour();
    ASSERT_TRUE(r.Make());
    IBox* trak = r.st->Track();
    ASSERT_NE(trak, nullptr);
    EXPECT_EQ(ChildCodes(trak), "tkhd,mdia");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "mdia")), "mdhd,hdlr,minf");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "minf")), mp4 ? "vmhd,dinf,stbl" : "vmhd,hdlr,dinf,stbl");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "dref")), mp4 ? "url " : "alis");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), "stsd,stts,stss,stsc,stsz,stco");
    EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "avc1")), mp4 ? "avcC,colr" : "avcC");
    auto* tkhd = FindBox<ctkhd>(trak, "tkhd");
    EXPECT_EQ(std::make_tuple(tkhd->Version(), tkhd->Flags(), tkhd->_track_id, tkhd->_width, tkhd->_height),
              std::make_tuple(0, mp4 ? 1u : 15u, 1u, 64, 48));
    EXPECT_EQ(tkhd->_matrix[8], 0x40000000u);
    auto* mdhd = FindBox<cmdhd>(trak, "mdhd");
    EXPECT_EQ(std::make_tuple(mdhd->_timescale, mdhd->_language), std::make_tuple(60000u, mp4 ? 21956 : 0));
    EXPECT_EQ(r.st->TimeScale(), 60000);
    auto* hdlr = FindBox<chdlr>(trak, "hdlr");
    EXPECT_EQ(std::make_tuple(hdlr->_component_type, hdlr->_component_subtype, hdlr->_component_manufacturer),
              std::make_tuple(mp4 ? 0u : Fcc("mhlr"), Fcc("vide"), mp4 ? 0u : Fcc("quor")));
    EXPECT_EQ(Name(hdlr), mp4 ? std::string(1, '\0') : std::string("Video Handler\0", 14));
    EXPECT_EQ(FindBox<cvmhd>(trak, "vmhd")->Flags(), 1u);
    EXPECT_NE(FindBox<cxstts>(trak, "stts"), nullptr);
    if (mp4) {
      EXPECT_EQ(WrittenBox(trak, "url "), H("0000000c 'url ' 00000001"));
      auto* colr = FindBox<ccolr>(trak, "colr");
      EXPECT_EQ(std::make_tuple(colr->_colour_type, colr->_primaries, colr->_transfer, colr->_matrix,
                                colr->_full_range, colr->_not_bt709),
                std::make_tuple(Fcc("nclx"), 1, 1, 1, 1, 0));
    } else {
      auto* dhlr = dynamic_cast<chdlr*>(FindBox<IBox>(trak, "minf")->Child()->Next());
      ASSERT_NE(dhlr, nullptr);
      EXPECT_EQ(std::make_tuple(dhlr->_component_type, dhlr->_component_subtype, dhlr->_name_len),
                std::make_tuple(Fcc("dhlr"), Fcc("alis"), 32));
      EXPECT_EQ(Name(dhlr).substr(0, 25), "Quorel Alias Data Handler");
      EXPECT_EQ(FindBox<IMoov>(trak, "alis")->Flags(), 1u);
    }
    auto* avc1 = FindBox<cavc1>(trak, "avc1");
    EXPECT_EQ(std::make_tuple(avc1->_vendor, avc1->_temporal_quality, avc1->_spatial_quality),
              std::make_tuple(mp4 ? 0u : Fcc("quor"), mp4 ? 0u : 512u, mp4 ? 0u : 512u));
    EXPECT_EQ(std::make_tuple(avc1->_width, avc1->_height, avc1->_frame_count, avc1->_compressor_name_len,
                              avc1->_depth, avc1->_color_table_id),
              std::make_tuple(64, 48, 1, 32, 24, 0xffff));
    // The mp4 name is written over the mov one, and keeps its eleventh character.
    EXPECT_EQ(std::string(avc1->_compressor_name, 12), std::string(mp4 ? "AVC CodingC" : "Quorel AVCC", 12));
    // The decoder record: the media's sets, and the range-extension bytes of profile 100.
    EXPECT_EQ(WrittenBox(trak, "avcC"), Cat({H("00000027 'avcC' 01 64000a ff e1 000a"), r.sets.sps,
                                             H("01 0006"), r.sets.pps, H("fdf8f800")}));
    EXPECT_EQ(r.st->_extraSize, 16u);
    EXPECT_EQ(r.st->_fifo, nullptr);
  }

  // Tags and media: tapt, edts, version 1, 64-bit offsets, the table order, interlacing, colours.
  H264Rig r;
  r.tags->ios_support_box_add = true;
  r.tags->video_has_edts = 1;
  r.tags->stbl_order = 1;
  r.tags->video_has_color_param = 1;
  r.tags->video_color_param = 0x81;
  r.media->Set("struct", Fcc("ibbp"));
  r.media->Set("interlace", true);
  ASSERT_TRUE(r.Make(true, true));
  IBox* trak = r.st->Track();
  EXPECT_EQ(ChildCodes(trak), "tkhd,tapt,edts,mdia");
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "tapt")), "clef,prof,enof");
  EXPECT_EQ(FindBox<cenof>(trak, "enof")->_height, 96);  // interlaced: two fields a frame
  EXPECT_EQ(FindBox<ctkhd>(trak, "tkhd")->_height, 96);
  for (const char* code : {"tkhd", "elst", "mdhd"}) EXPECT_EQ(FindBox<IMoov>(trak, code)->Version(), 1) << code;
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), "stsd,stts,ctts,sdtp,stsc,stsz,co64,stss");
  auto* colr = FindBox<ccolr>(trak, "colr");  // the mov profile keeps "nclc"
  EXPECT_EQ(std::make_tuple(colr->_colour_type, colr->_not_bt709, colr->_full_range, colr->_primaries, colr->_matrix),
            std::make_tuple(Fcc("nclc"), 1, 1, 6, 6));
  // B frames: the first time stamp hides behind the edit list.
  ASSERT_TRUE(r.Add(Nal(0x65, 10), 80 * kMs, true));
  ASSERT_TRUE(r.Add(Nal(0x41, 10), 120 * kMs));
  ASSERT_TRUE(r.st->MuxUpdate(600, false));
  auto* elst = FindBox<celst>(trak, "elst");
  ASSERT_EQ(elst->_items.size(), 1u);
  EXPECT_EQ(elst->_items[0].media_time, 4800);
  EXPECT_EQ(elst->_items[0].segment_duration, 48u);

  // All intra: no sync table. A custom triple replaces the one chosen by the parameter.
  H264Rig intra;
  intra.media->Set("struct", Fcc("iiii"));
  intra.tags->video_has_color_param = 1;
  intra.tags->video_color_param = 0x80;
  intra.tags->video_cus_color_param = (0x05ull << 32) | (0x10ull << 16) | 0x09;
  ASSERT_TRUE(intra.Make());
  EXPECT_EQ(ChildCodes(FindBox<IBox>(intra.st->Track(), "stbl")), "stsd,stts,stsc,stsz,stco");
  colr = FindBox<ccolr>(intra.st->Track(), "colr");
  EXPECT_EQ(std::make_tuple(colr->_full_range, colr->_primaries, colr->_transfer, colr->_matrix),
            std::make_tuple(0, 9, 16, 5));
}

// Each attribute taken away on its own: the H.264 track leaves its half-built trak with the stream, the
// AAC track fails before any box.
TEST(StreamTrack, EachMissingAttributeFailsTheConfiguration) {
  H264Sets sets;
  MediaPtr h264 = NewH264Media(sets), aac = NewAacMedia();
  const std::pair<IMedia*, std::vector<const char*>> tracks[] = {
      {h264.get(), {"width", "height", "interlace", "profile", "level", "pps", "ipps", "sps", "isps",
                    "chroma_format_idc", "bit_depth_luma_minus8", "bit_depth_chroma_minus8"}},
      {aac.get(), {"rate", "channel", "width", "depth", "bitrate"}}};
  for (const auto& t : tracks) {
    for (const char* key : t.second) {
      const bool avc = t.first == h264.get();
      MuxRig rig;
      MediaPtr media = WithoutAttr(t.first, avc ? "h264" : "aac", key);
      IStream* st = rig.New(avc ? "h264" : "aac");
      LogCapture quiet(kiv::dbg::E);
      EXPECT_FALSE(rig.Config(st, media.get())) << key;
      EXPECT_EQ(st->Track() != nullptr, avc) << key;
    }
  }
}

TEST(StreamH264, StartCodesBecomeLengthsAndTheSliceIsNotCopied) {
  H264Rig r;
  ASSERT_TRUE(r.Make());
  const Bytes full = Cat({Nal(0x09, 1, 0xf0), Nal(0x67, 9), Nal(0x68, 5), Nal(0x06, 12), Nal(0x65, 30)});
  // A unit of another type stays inside the unit before it; a second slice inside the first.
  const Bytes other = Cat({Nal(0x67, 9), Nal(0x0c, 3), Nal(0x65, 8), Nal(0x01, 6)});
  const Bytes otherStored = Cat({H("00000012 67"), Bytes(9, 0xAB), Nal(0x0c, 3), H("00000014 65"),
                                 Bytes(8, 0xAB), Nal(0x01, 6)});
  const Bytes bigHead = Cat({Nal(0x06, 300), Nal(0x25, 20)});  // the head no longer fits the member buffer
  const Bytes noSlice = Cat({Nal(0x67, 9), Nal(0x68, 5)});
  const std::pair<Bytes, Bytes> cases[] = {{full, LengthPrefixed(full)},
                                           {Nal(0x41, 40), LengthPrefixed(Nal(0x41, 40))},
                                           {other, otherStored},
                                           {bigHead, LengthPrefixed(bigHead)},
                                           {noSlice, noSlice}};
  long long pts = 0;
  for (const auto& c : cases) {
    const unsigned long long at = static_cast<unsigned long long>(r.io.Size());
    ASSERT_TRUE(r.Add(c.first, pts, pts == 0));
    pts += 40 * kMs;
    EXPECT_EQ(r.List().back().offset, at);
    EXPECT_EQ(r.List().back().size, c.first.size());
    EXPECT_EQ(r.At(at, c.first.size()), c.second);
  }
  EXPECT_EQ(r.mdat->RealSize(), static_cast<unsigned long long>(r.io.Size()));
}

TEST(StreamH264, GroupsOfThreeAndTheRestDroppedAtTheEnd) {
  H264Rig r;
  r.tags->videosampleperchunk = 3;
  ASSERT_TRUE(r.Make());
  ASSERT_NE(r.st->_fifo, nullptr);
  EXPECT_EQ(r.st->_fifo->Max(), 6);
  EXPECT_EQ(r.st->_chunkLeads, 1);
  const Bytes sample = Nal(0x41, 15);  // 20 bytes
  for (int i = 0; i < 7; ++i) {
    ASSERT_TRUE(r.Add(sample, i * 40 * kMs, i == 0));
    EXPECT_EQ(r.List().size(), static_cast<size_t>(i + 1) / 3 * 3) << i;
  }
  // A group's position in its last record, its size in every count.
  EXPECT_EQ(Fields(r.List()), Fields({Rec(0, 20, 2400, 3, 1), Rec(0, 20, 2400, 3), Rec(8, 20, 2400, 3),
                                      Rec(0, 20, 2400, 3), Rec(0, 20, 2400, 3), Rec(68, 20, 2400, 3)}));
  // Fewer than a group are left: nothing more is written.
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 0));
  EXPECT_EQ(r.List().size(), 6u);
  EXPECT_EQ(r.io.Size(), 8 + 6 * 20);
  // One stsc entry for chunks of three, one stco entry a group.
  EXPECT_EQ(WrittenBox(r.st->Track(), "stsc"), Table("stsc", {1, 1, 3, 1}));
  EXPECT_EQ(WrittenBox(r.st->Track(), "stco"), Table("stco", {2, 8, 68}));
  EXPECT_EQ(WrittenBox(r.st->Track(), "stts"), Table("stts", {1, 6, 2400}));
}

TEST(StreamH264, AFollowingTrackWaitsForTheLeader) {
  H264Rig r;
  r.tags->videosampleperchunk = 2;
  r.tags->audio_chunk_first = 1;
  ASSERT_TRUE(r.Make());
  const Bytes sample = Nal(0x41, 11);
  // Records after a sample at ms with the leader's duration.
  auto add = [&](long long ms, unsigned long long leader) {
    EXPECT_TRUE(r.Add(sample, ms * kMs, ms == 0, leader));
    return r.List().size();
  };
  EXPECT_EQ(add(0, 1000), 0u);
  EXPECT_EQ(add(40, 1000), 0u) << "nothing before the mdat has content";
  r.mdat->Size(1);  // the 64-bit form counts its longer header
  r.mdat->ExtendedSize(16);
  EXPECT_EQ(add(80, 1000), 0u);
  r.mdat->ExtendedSize(17);  // the leader has written
  EXPECT_EQ(add(120, 0), 2u) << "the first group never waits for the duration";
  EXPECT_EQ(r.st->Duration(), 80);
  EXPECT_EQ(r.st->_firstChunkMs, 80u);
  EXPECT_EQ(add(160, 119), 2u) << "half a chunk ahead of the leader at most: 80 + 40 must not pass it";
  EXPECT_EQ(add(200, 120), 4u);
  EXPECT_EQ(add(240, 0), 4u);

  // At the end the whole groups go out and grow the mdat's size field.
  const unsigned long long before = r.mdat->ExtendedSize();
  const long long pos = r.io.Size();
  ASSERT_TRUE(r.st->CleanFifoData(r.io, 0));
  EXPECT_EQ(r.List().size(), 6u);
  EXPECT_EQ(r.List().back().offset, static_cast<unsigned long long>(pos));
  EXPECT_EQ(r.mdat->ExtendedSize(), before + 2 * sample.size());
  EXPECT_EQ(r.st->_fifo->Size(), 1);
}

TEST(StreamH264, TableOnFileModeWritesTheSameTables) {
  stbltest::MappedDrive drive('d');
  const unsigned cluster = GetClusterSize("d:/stts");
  const Bytes samples[] = {Nal(0x65, 30), Nal(0x41, 12), Nal(0x01, 7)};
  // The trak as written; the list its tables stand for; the tables behind a filler (those that went to files).
  auto run = [&](bool concate, int planSeconds, unsigned spc, std::vector<ChunkParam>& parsed, int& filed) {
    H264Rig r;
    r.para.planSeconds = planSeconds;
    r.tags->ios_support_box_add = true;
    r.tags->videosampleperchunk = spc;
    r.media->Set("struct", Fcc("ibbp"));
    if (!r.Make(false, false, concate)) return Bytes();
    for (int i = 0; i < 12; ++i) r.Add(samples[i % 3], i * 40 * kMs + (i == 5 ? 7 * kMs : 0), i % 6 == 0);
    r.st->CleanFifoData(r.io, 0);
    EXPECT_EQ(r.List().empty(), concate);
    r.st->MuxUpdate(600, false);
    Bytes trak = MuxRig::Written(r.st->Track());
    stbltest::ParsedStbl p(trak);
    EXPECT_TRUE(p.ok);
    if (!p.stbl) return trak;
    parsed = p.list();
    filed = 0;
    for (IBox* c = p.stbl->Child(); c && c->Next(); c = c->Next()) {
      if (std::string(c->FCCString()) != "free") continue;
      ++filed;
      EXPECT_EQ(c->Next()->Offset() % cluster, 0) << c->Next()->FCCString();
    }
    return trak;
  };
  for (unsigned spc : {1u, 3u}) {
    SCOPED_TRACE(spc);
    std::vector<ChunkParam> plainList, fileList, smallList;
    int filed = -1;
    const Bytes plain = run(false, 1800, spc, plainList, filed);
    ASSERT_FALSE(plain.empty());
    // Tables that stay in memory are copied out as they are, with no filler.
    EXPECT_EQ(run(true, 1800, spc, fileList, filed), plain);
    EXPECT_EQ(filed, 0);
    // A plan of one second: tables outgrow their reservations, go through temporary files, and join the
    // output at cluster boundaries.
    EXPECT_GT(run(true, 1, spc, smallList, filed).size(), plain.size());
    EXPECT_GT(filed, 0);
    ASSERT_EQ(plainList.size(), 12u);
    EXPECT_EQ(Fields(smallList), Fields(plainList));
  }
  EXPECT_TRUE(drive.dir.entries().empty());  // the buffers take their files along
}

TEST(StreamH264, DemuxedSamplesGetTheirStartCodesBack) {
  H264Rig mux;
  ASSERT_TRUE(mux.Make());
  StreamH264 st;
  st._trak = mux.st->Track();
  ASSERT_TRUE(st.demuxConfig(nullptr));
  IMedia* m = st.Media();
  int w = 0, h = 0;
  unsigned profile = 0;
  EXPECT_TRUE(m->Get("width", w) && m->Get("height", h) && m->Get("profile", profile));
  EXPECT_EQ(std::make_tuple(w, h, profile), std::make_tuple(64, 48, 100u));
  const Bytes sps = Cat({H("00000001"), mux.sets.sps}), pps = Cat({H("00000001"), mux.sets.pps});
  EXPECT_EQ(Bytes(m->Extra(), m->Extra() + m->ExtraSize()), Cat({sps, pps}));

  const Bytes oneByte = Nal(0x0c, 0), aud = Nal(0x09, 1, 0xf0), idr = Nal(0x65, 20);
  struct Case {
    Bytes in;        // as the muxer saw it
    Bytes restored;  // the head that comes back; the rest stays as stored
    bool key;
  } cases[] = {
      {Cat({aud, sps, pps, idr}), Cat({aud, sps, pps, idr}), true},
      {Cat({oneByte, sps, pps, oneByte, idr}), Cat({oneByte, sps, pps, oneByte}), true},
      {Cat({sps, pps, Nal(0x06, 5), idr}), Cat({sps, pps}), true},
      {Cat({Nal(0x41, 20), Nal(0x01, 9)}), Nal(0x41, 20), false},
      {Cat({Nal(0x67, 3), idr}), Bytes(), true},
  };
  for (const Case& c : cases) {
    const Bytes stored = LengthPrefixed(c.in);
    PacketPtr p = MakePacket(m, stored, 0, 0, false);
    ASSERT_EQ(st.demuxUpdatePacket(mux.io, p.get()), p.get());
    Bytes expect = c.restored;
    expect.insert(expect.end(), stored.begin() + static_cast<long>(expect.size()), stored.end());
    EXPECT_EQ(Bytes(p->Data(), p->Data() + p->Size()), expect);
    EXPECT_EQ(p->IsKey(), c.key);
  }

  LogCapture log(kiv::dbg::E);
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, nullptr), nullptr);
  Packet* bad = reinterpret_cast<Packet*>(intptr_t(-1));
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, bad), bad);
  // A length that points past the sample reads nothing beyond it.
  PacketPtr cut = MakePacket(m, H("00000001 09 000010 00"), 0, 0, false, 0);
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, cut.get()), cut.get());
  st.Track(nullptr);
}
