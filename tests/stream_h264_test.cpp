// The H.264 track: its trak tree in both profile flavours, start codes turned into lengths on the way
// to the file and back, chunk groups and the wait for the leading track, table-on-file mode.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "StreamRig.h"
#include "io_test_util.h"
#include "stream/base/io/IUrl.h"
#include "stream/plugin/mp4/common/StblFile.h"
#include "stream/plugin/mp4/common/StreamH264.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "tools/H264Reader.h"

using namespace streamtest;
using namespace kiv::plugin::mov;

namespace {

struct H264Rig : MuxRig {
  H264Sets sets;
  MediaPtr media = NewH264Media(sets);
  StreamH264* st = nullptr;

  bool Make(const char* rate = "25/1") {
    st = dynamic_cast<StreamH264*>(New("h264", 1));
    return st && st->setString("frameRate", rate) && Config(st, media.get());
  }
  bool Add(const Bytes& sample, long long pts, bool key = false, unsigned long long leader = 0) {
    PacketPtr p = MakePacket(media.get(), sample, pts, 40 * kMs, key);
    return st->AddPacket(*p, io, leader);
  }
  std::vector<ChunkParam>& List() { return *st->MuxChunkList(); }
};

std::string Name(const chdlr* h) { return std::string(reinterpret_cast<const char*>(h->_name), h->_name_len); }

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

Bytes Slice(IOBuffer& io, unsigned long long offset, size_t size) {
  return Bytes(io.Data() + offset, io.Data() + offset + size);
}

}  // namespace

TEST(StreamH264, TrakTreeOfTheMovProfile) {
  H264Rig r;
  ASSERT_TRUE(r.Make());
  IBox* trak = r.st->Track();
  ASSERT_NE(trak, nullptr);
  EXPECT_EQ(ChildCodes(trak), "tkhd,mdia");
  auto* tkhd = FindBox<ctkhd>(trak, "tkhd");
  EXPECT_EQ(tkhd->Version(), 0);
  EXPECT_EQ(tkhd->Flags(), 15u);
  EXPECT_EQ(tkhd->_track_id, 1u);
  EXPECT_EQ(tkhd->_width, 64);
  EXPECT_EQ(tkhd->_height, 48);
  EXPECT_EQ(tkhd->_matrix[8], 0x40000000u);

  IBox* mdia = FindBox<IBox>(trak, "mdia");
  EXPECT_EQ(ChildCodes(mdia), "mdhd,hdlr,minf");
  auto* mdhd = FindBox<cmdhd>(trak, "mdhd");
  EXPECT_EQ(mdhd->_timescale, 60000u);
  EXPECT_EQ(mdhd->_language, 0);
  EXPECT_EQ(r.st->TimeScale(), 60000);
  auto* hdlr = dynamic_cast<chdlr*>(mdia->Child()->Next());
  ASSERT_NE(hdlr, nullptr);
  EXPECT_EQ(hdlr->_component_type, Fcc("mhlr"));
  EXPECT_EQ(hdlr->_component_subtype, Fcc("vide"));
  EXPECT_EQ(hdlr->_component_manufacturer, Fcc("quor"));
  EXPECT_EQ(Name(hdlr), std::string("Video Handler\0", 14));

  IBox* minf = FindBox<IBox>(trak, "minf");
  EXPECT_EQ(ChildCodes(minf), "vmhd,hdlr,dinf,stbl");
  EXPECT_EQ(FindBox<cvmhd>(trak, "vmhd")->Flags(), 1u);
  auto* dhlr = dynamic_cast<chdlr*>(minf->Child()->Next());
  EXPECT_EQ(dhlr->_component_type, Fcc("dhlr"));
  EXPECT_EQ(dhlr->_component_subtype, Fcc("alis"));
  EXPECT_EQ(dhlr->_name_len, 32);
  EXPECT_EQ(Name(dhlr).substr(0, 25), "Quorel Alias Data Handler");
  IBox* dref = FindBox<IBox>(trak, "dref");
  EXPECT_EQ(ChildCodes(dref), "alis");
  EXPECT_EQ(dynamic_cast<IMoov*>(dref->Child())->Flags(), 1u);

  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), "stsd,stts,stss,stsc,stsz,stco");
  EXPECT_NE(FindBox<cxstts>(trak, "stts"), nullptr);
  auto* avc1 = FindBox<cavc1>(trak, "avc1");
  ASSERT_NE(avc1, nullptr);
  EXPECT_EQ(ChildCodes(avc1), "avcC");
  EXPECT_EQ(avc1->_vendor, Fcc("quor"));
  EXPECT_EQ(avc1->_temporal_quality, 512u);
  EXPECT_EQ(avc1->_spatial_quality, 512u);
  EXPECT_EQ(avc1->_width, 64);
  EXPECT_EQ(avc1->_height, 48);
  EXPECT_EQ(avc1->_frame_count, 1);
  EXPECT_EQ(avc1->_compressor_name_len, 32);
  EXPECT_STREQ(avc1->_compressor_name, "Quorel AVCC");
  EXPECT_EQ(avc1->_depth, 24);
  EXPECT_EQ(avc1->_color_table_id, 0xffff);

  // The decoder record as written: the sets of the media, and the range-extension bytes of profile 100.
  Bytes expect = {'a', 'v', 'c', 'C', 1, 100, 0, 10, 255, 225, 0, 10};
  Append(expect, r.sets.sps);
  Append(expect, {1, 0, 6});
  Append(expect, r.sets.pps);
  Append(expect, {0xfd, 0xf8, 0xf8, 0});
  Bytes avcC = MuxRig::Written(FindBox<IBox>(trak, "avcC"));
  ASSERT_EQ(avcC.size(), expect.size() + 4);
  EXPECT_EQ(Be32(avcC.data()), avcC.size());
  EXPECT_EQ(Bytes(avcC.begin() + 4, avcC.end()), expect);
  EXPECT_EQ(r.st->_extraSize, 16u);
  EXPECT_EQ(r.st->_fifo, nullptr);
}

TEST(StreamH264, TrakTreeOfTheMp4Profile) {
  H264Rig r;
  r.tags->Mp4Flavour();
  ASSERT_TRUE(r.Make());
  IBox* trak = r.st->Track();
  EXPECT_EQ(FindBox<ctkhd>(trak, "tkhd")->Flags(), 1u);
  EXPECT_EQ(FindBox<cmdhd>(trak, "mdhd")->_language, 21956);
  auto* hdlr = FindBox<chdlr>(trak, "hdlr");
  EXPECT_EQ(hdlr->_component_type, 0u);
  EXPECT_EQ(hdlr->_component_manufacturer, 0u);
  EXPECT_EQ(hdlr->_name_len, 1);
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "minf")), "vmhd,dinf,stbl");
  IBox* dref = FindBox<IBox>(trak, "dref");
  EXPECT_EQ(ChildCodes(dref), "url ");
  EXPECT_EQ(MuxRig::Written(dref->Child()), (Bytes{0, 0, 0, 12, 'u', 'r', 'l', ' ', 0, 0, 0, 1}));
  auto* avc1 = FindBox<cavc1>(trak, "avc1");
  EXPECT_EQ(avc1->_vendor, 0u);
  EXPECT_EQ(avc1->_temporal_quality, 0u);
  EXPECT_EQ(std::string(avc1->_compressor_name, 11), "AVC CodingC");
  EXPECT_EQ(ChildCodes(avc1), "avcC,colr");
  auto* colr = FindBox<ccolr>(trak, "colr");
  EXPECT_EQ(colr->_colour_type, Fcc("nclx"));
  EXPECT_EQ(colr->_primaries, 1);
  EXPECT_EQ(colr->_transfer, 1);
  EXPECT_EQ(colr->_matrix, 1);
  EXPECT_EQ(colr->_full_range, 1);
  EXPECT_EQ(colr->_not_bt709, 0);
}

TEST(StreamH264, ProfileTagsAndMediaShapeTheTree) {
  H264Rig r;
  r.tags->ios_support_box_add = true;
  r.tags->video_has_edts = 1;
  r.tags->stbl_order = 1;
  r.tags->video_has_color_param = 1;
  r.tags->video_color_param = 0x81;
  r.media->Set("struct", Fcc("ibbp"));
  r.media->Set("interlace", true);
  r.st = dynamic_cast<StreamH264*>(r.New("h264"));
  ASSERT_NE(r.st, nullptr);
  r.st->_use64 = true;
  r.st->_version1 = true;
  ASSERT_TRUE(r.Config(r.st, r.media.get()));
  IBox* trak = r.st->Track();
  EXPECT_EQ(ChildCodes(trak), "tkhd,tapt,edts,mdia");
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "tapt")), "clef,prof,enof");
  EXPECT_EQ(FindBox<cenof>(trak, "enof")->_height, 96);  // interlaced: two fields a frame
  EXPECT_EQ(FindBox<ctkhd>(trak, "tkhd")->Version(), 1);
  EXPECT_EQ(FindBox<ctkhd>(trak, "tkhd")->_height, 96);
  EXPECT_EQ(FindBox<celst>(trak, "elst")->Version(), 1);
  EXPECT_EQ(FindBox<cmdhd>(trak, "mdhd")->Version(), 1);
  EXPECT_EQ(ChildCodes(FindBox<IBox>(trak, "stbl")), "stsd,stts,ctts,sdtp,stsc,stsz,co64,stss");
  auto* colr = FindBox<ccolr>(trak, "colr");
  EXPECT_EQ(colr->_colour_type, Fcc("nclc"));  // the mov profile keeps "nclc"
  EXPECT_EQ(colr->_not_bt709, 1);
  EXPECT_EQ(colr->_full_range, 1);
  EXPECT_EQ(colr->_primaries, 6);
  EXPECT_EQ(colr->_matrix, 6);

  // All intra: no sync table. A custom triple replaces the one chosen by the parameter.
  H264Rig intra;
  intra.media->Set("struct", Fcc("iiii"));
  intra.tags->video_has_color_param = 1;
  intra.tags->video_color_param = 0x80;
  intra.tags->video_cus_color_param = (0x05ull << 32) | (0x10ull << 16) | 0x09;
  ASSERT_TRUE(intra.Make());
  EXPECT_EQ(ChildCodes(FindBox<IBox>(intra.st->Track(), "stbl")), "stsd,stts,stsc,stsz,stco");
  auto* c2 = FindBox<ccolr>(intra.st->Track(), "colr");
  EXPECT_EQ(c2->_full_range, 0);
  EXPECT_EQ(c2->_primaries, 9);
  EXPECT_EQ(c2->_transfer, 16);
  EXPECT_EQ(c2->_matrix, 5);
}

TEST(StreamH264, EachMissingAttributeFailsWithItsCondition) {
  const char* keys[] = {"width", "height", "interlace", "profile", "level", "pps", "ipps", "sps", "isps",
                        "chroma_format_idc", "bit_depth_luma_minus8", "bit_depth_chroma_minus8"};
  const char* said[] = {"!_media->Get(\"width\", width)",
                        "!_media->Get(\"height\", height)",
                        "!_media->Get(\"interlace\", interlace)",
                        "!_media->Get(\"profile\", profile)",
                        "!_media->Get(\"level\", level)",
                        "!_media->Get(\"pps\", pps)",
                        "!_media->Get(\"ipps\", ipps)",
                        "!_media->Get(\"sps\", sps)",
                        "!_media->Get(\"isps\", isps)",
                        "!_media->Get(\"chroma_format_idc\", avcc->_chroma_format_idc)",
                        "!_media->Get(\"bit_depth_luma_minus8\", avcc->_bit_depth_luma_minus8)",
                        "!_media->Get(\"bit_depth_chroma_minus8\", avcc->_bit_depth_chroma_minus8)"};
  for (size_t k = 0; k < sizeof keys / sizeof keys[0]; ++k) {
    MuxRig rig;
    H264Sets sets;
    MediaPtr full = NewH264Media(sets);
    // The same attributes without one of them.
    AttrSet attrs = full->Attrs();
    MediaPtr media(IMedia::New("h264"));
    for (size_t i = 0; i < attrs.Size(); ++i)
      if (std::string(attrs.Key(i)) != keys[k]) media->setString(attrs.Key(i), attrs.Value(i));
    IStream* st = rig.New("h264");
    LogCapture log(kiv::dbg::E);
    EXPECT_FALSE(rig.Config(st, media.get())) << keys[k];
    EXPECT_TRUE(log.Has(said[k])) << said[k];
    // The half-built trak goes with the stream.
    EXPECT_NE(st->Track(), nullptr);
    rig.Drop(st);
  }
}

TEST(StreamH264, StartCodesBecomeLengthsAndTheSliceIsNotCopied) {
  H264Rig r;
  ASSERT_TRUE(r.Make());
  Bytes full = Nal(0x09, 1, 0xf0);
  Append(full, Nal(0x67, 9));
  Append(full, Nal(0x68, 5));
  Append(full, Nal(0x06, 12));
  Append(full, Nal(0x65, 30));
  Bytes alone = Nal(0x41, 40);
  // A unit of another type stays inside the unit before it; a second slice inside the first.
  Bytes other = Nal(0x67, 9);
  Append(other, Nal(0x0c, 3));
  Append(other, Nal(0x65, 8));
  Append(other, Nal(0x01, 6));
  Bytes bigHead = Nal(0x06, 300);  // the head no longer fits the member buffer
  Append(bigHead, Nal(0x25, 20));
  Bytes noSlice = Nal(0x67, 9);
  Append(noSlice, Nal(0x68, 5));

  Bytes otherExpect = {0, 0, 0, 18, 0x67};
  otherExpect.insert(otherExpect.end(), 9, 0xAB);
  Append(otherExpect, Nal(0x0c, 3));
  Append(otherExpect, {0, 0, 0, 20, 0x65});
  otherExpect.insert(otherExpect.end(), 8, 0xAB);
  Append(otherExpect, Nal(0x01, 6));

  const std::vector<std::pair<Bytes, Bytes>> cases = {{full, LengthPrefixed(full)},
                                                      {alone, LengthPrefixed(alone)},
                                                      {other, otherExpect},
                                                      {bigHead, LengthPrefixed(bigHead)},
                                                      {noSlice, noSlice}};
  long long pts = 0;
  for (const auto& c : cases) {
    const unsigned long long at = static_cast<unsigned long long>(r.io.Size());
    ASSERT_TRUE(r.Add(c.first, pts, pts == 0));
    pts += 40 * kMs;
    const ChunkParam& rec = r.List().back();
    EXPECT_EQ(rec.offset, at);
    EXPECT_EQ(rec.size, c.first.size());
    EXPECT_EQ(Slice(r.io, at, c.first.size()), c.second);
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
  const unsigned long long offsets[] = {0, 0, 8, 0, 0, 68};
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(r.List()[i].offset, offsets[i]) << i;
    EXPECT_EQ(r.List()[i].count, 3u);
    EXPECT_EQ(r.List()[i].duration, 2400u);
  }
  EXPECT_EQ(r.List()[0].flags, 1);
  EXPECT_EQ(r.io.Size(), 8 + 6 * 20);
  EXPECT_EQ(r.st->_chunkCount, 2u);
  EXPECT_EQ(r.st->_firstChunkMs, 120u);
  // Fewer than a group are left: nothing more is written.
  EXPECT_TRUE(r.st->CleanFifoData(r.io, 0));
  EXPECT_EQ(r.List().size(), 6u);
  EXPECT_EQ(r.io.Size(), 8 + 6 * 20);

  // One stsc entry for chunks of three, one stco entry a group.
  Bytes stsc = MuxRig::Written(FindBox<IBox>(r.st->Track(), "stsc"));
  EXPECT_EQ(Bytes(stsc.begin() + 12, stsc.end()), (Bytes{0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 3, 0, 0, 0, 1}));
  Bytes stco = MuxRig::Written(FindBox<IBox>(r.st->Track(), "stco"));
  EXPECT_EQ(Bytes(stco.begin() + 12, stco.end()), (Bytes{0, 0, 0, 2, 0, 0, 0, 8, 0, 0, 0, 68}));
  Bytes stts = MuxRig::Written(FindBox<IBox>(r.st->Track(), "stts"));
  EXPECT_EQ(Bytes(stts.begin() + 12, stts.end()), (Bytes{0, 0, 0, 1, 0, 0, 0, 6, 0, 0, 0x09, 0x60}));
}

TEST(StreamH264, AFollowingTrackWaitsForTheLeader) {
  H264Rig r;
  r.tags->videosampleperchunk = 2;
  r.tags->audio_chunk_first = 1;
  ASSERT_TRUE(r.Make());
  EXPECT_EQ(r.st->_chunkLeads, 0);
  const Bytes sample = Nal(0x41, 11);
  ASSERT_TRUE(r.Add(sample, 0, true, 1000));
  ASSERT_TRUE(r.Add(sample, 40 * kMs, false, 1000));
  EXPECT_TRUE(r.List().empty()) << "nothing before the mdat has content";
  r.mdat->Size(1);  // the 64-bit form counts its longer header
  r.mdat->ExtendedSize(16);
  ASSERT_TRUE(r.Add(sample, 80 * kMs, false, 1000));
  EXPECT_TRUE(r.List().empty());

  r.mdat->ExtendedSize(17);  // the leader has written
  ASSERT_TRUE(r.Add(sample, 120 * kMs, false, 0));
  ASSERT_EQ(r.List().size(), 2u);  // the first group never waits for the duration
  EXPECT_EQ(r.st->Duration(), 80);
  EXPECT_EQ(r.st->_firstChunkMs, 80u);
  // Half a chunk ahead of the leader at most: 80 + 40 must not pass it.
  ASSERT_TRUE(r.Add(sample, 160 * kMs, false, 119));
  EXPECT_EQ(r.List().size(), 2u);
  ASSERT_TRUE(r.Add(sample, 200 * kMs, false, 120));
  EXPECT_EQ(r.List().size(), 4u);

  // At the end the whole groups go out and grow the mdat's size field.
  ASSERT_TRUE(r.Add(sample, 240 * kMs, false, 0));
  EXPECT_EQ(r.st->_fifo->Size(), 3);
  const unsigned long long before = r.mdat->ExtendedSize();
  const long long pos = r.io.Size();
  ASSERT_TRUE(r.st->CleanFifoData(r.io, 0));
  EXPECT_EQ(r.List().size(), 6u);
  EXPECT_EQ(r.List().back().offset, static_cast<unsigned long long>(pos));
  EXPECT_EQ(r.mdat->ExtendedSize(), before + 2 * sample.size());
  EXPECT_EQ(r.st->_fifo->Size(), 1);
}

TEST(StreamH264, TableOnFileModeWritesTheSameTables) {
  iotest::TempDir dir;
  kiv::base::DriveMap('d', dir.path().c_str());
  const Bytes samples[] = {Nal(0x65, 30), Nal(0x41, 12), Nal(0x01, 7)};
  auto run = [&](bool concate, int planSeconds, unsigned spc, std::vector<ChunkParam>& parsed) {
    H264Rig r;
    r.para.planSeconds = planSeconds;
    r.tags->ios_support_box_add = true;
    r.tags->videosampleperchunk = spc;
    r.media->Set("struct", Fcc("ibbp"));
    r.st = dynamic_cast<StreamH264*>(r.New("h264"));
    r.st->setString("frameRate", "25/1");
    r.st->_concate = concate;
    if (!r.Config(r.st, r.media.get())) return Bytes();
    for (int i = 0; i < 12; ++i) r.Add(samples[i % 3], i * 40 * kMs + (i == 5 ? 7 * kMs : 0), i % 6 == 0);
    r.st->CleanFifoData(r.io, 0);
    if (concate) {
      EXPECT_TRUE(r.List().empty());
    }
    r.st->MuxUpdate(600, false);
    Bytes trak = MuxRig::Written(r.st->Track());
    // Read back: the list that the tables stand for.
    IOBuffer in;
    in.Write(trak.data(), static_cast<long long>(trak.size()));
    in.Seek(0, kiv::Position::front);
    croot root;
    AttrSet ap;
    EXPECT_TRUE(root.Parse(in, ap, true));
    if (auto* stbl = FindBox<cstbl>(&root, "stbl")) parsed = *stbl->ChunkList();
    return trak;
  };
  for (unsigned spc : {1u, 3u}) {
    std::vector<ChunkParam> plainList, fileList, smallList;
    const Bytes plain = run(false, 1800, spc, plainList);
    const Bytes onFile = run(true, 1800, spc, fileList);
    ASSERT_FALSE(plain.empty());
    EXPECT_EQ(onFile, plain) << spc;
    // A plan of one second: the tables outgrow their reservations and go through temporary files.
    const Bytes small = run(true, 1, spc, smallList);
    EXPECT_GT(small.size(), plain.size());
    ASSERT_EQ(plainList.size(), 12u);
    ASSERT_EQ(smallList.size(), plainList.size());
    for (size_t i = 0; i < plainList.size(); ++i) {
      EXPECT_EQ(smallList[i].offset, plainList[i].offset) << i;
      EXPECT_EQ(smallList[i].size, plainList[i].size) << i;
      EXPECT_EQ(smallList[i].flags & 1, plainList[i].flags & 1) << i;
    }
  }
  kiv::base::DriveMap('d', nullptr);
  EXPECT_TRUE(dir.entries().empty());
}

TEST(StreamH264, BFramesHideTheFirstTimeStampBehindTheEditList) {
  H264Rig r;
  r.tags->video_has_edts = 1;
  r.media->Set("struct", Fcc("ibbp"));
  ASSERT_TRUE(r.Make());
  ASSERT_TRUE(r.Add(Nal(0x65, 10), 80 * kMs, true));
  ASSERT_TRUE(r.Add(Nal(0x41, 10), 120 * kMs));
  ASSERT_TRUE(r.st->MuxUpdate(600, false));
  auto* elst = FindBox<celst>(r.st->Track(), "elst");
  ASSERT_EQ(elst->_items.size(), 1u);
  EXPECT_EQ(elst->_items[0].media_time, 4800);
  EXPECT_EQ(elst->_items[0].segment_duration, 48u);
}

TEST(StreamH264, SetAVCInfoTakesTheSetsOfAKeySample) {
  H264Rig r;
  ASSERT_TRUE(r.Make());
  auto* avcc = FindBox<cavcC>(r.st->Track(), "avcC");
  avcc->_sps = avcc->_pps = nullptr;
  avcc->_sps_size = avcc->_pps_size = 0;
  r.st->_extraSize = 0;
  Bytes key = Nal(0x09, 1, 0xf0);
  Append(key, Nal(0x67, 7, 0x11));
  Append(key, Nal(0x68, 3, 0x22));
  Append(key, Nal(0x65, 20));
  PacketPtr p = MakePacket(r.media.get(), key, 0, 0, true);
  EXPECT_TRUE(r.st->SetAVCInfo(*p));
  EXPECT_EQ(avcc->_sps_size, 8);
  EXPECT_EQ(avcc->_pps_size, 4);
  EXPECT_EQ(r.st->_extraSize, 12u);
  EXPECT_EQ(Bytes(avcc->_sps, avcc->_sps + 8), (Bytes{0x67, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11}));
  EXPECT_EQ(Bytes(avcc->_pps, avcc->_pps + 4), (Bytes{0x68, 0x22, 0x22, 0x22}));
  StreamH264 bare;
  EXPECT_FALSE(bare.SetAVCInfo(*p));
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
  EXPECT_EQ(w, 64);
  EXPECT_EQ(h, 48);
  EXPECT_EQ(profile, 100u);
  Bytes extra = {0, 0, 0, 1};
  Append(extra, mux.sets.sps);
  Append(extra, {0, 0, 0, 1});
  Append(extra, mux.sets.pps);
  ASSERT_EQ(m->ExtraSize(), static_cast<int>(extra.size()));
  EXPECT_EQ(Bytes(m->Extra(), m->Extra() + m->ExtraSize()), extra);
  EXPECT_EQ(st._spsSize, 10u);
  EXPECT_EQ(st._ppsSize, 6u);

  Bytes sps = {0, 0, 0, 1};
  Append(sps, mux.sets.sps);
  Bytes pps = {0, 0, 0, 1};
  Append(pps, mux.sets.pps);
  auto annexB = [](std::initializer_list<Bytes> units) {
    Bytes b;
    for (const Bytes& u : units) Append(b, u);
    return b;
  };
  const Bytes oneByte = Nal(0x0c, 0);
  const Bytes aud = Nal(0x09, 1, 0xf0);
  const Bytes sei = Nal(0x06, 5);
  const Bytes idr = Nal(0x65, 20);
  const Bytes slice2 = Nal(0x01, 9);
  struct Case {
    Bytes in;       // as the muxer saw it
    Bytes restored;  // what comes back
  };
  const std::vector<Case> cases = {
      {annexB({aud, sps, pps, idr}), annexB({aud, sps, pps, idr})},
      {annexB({oneByte, sps, pps, oneByte, idr}), annexB({oneByte, sps, pps, oneByte}) /* + idr prefixed */},
      {annexB({sps, pps, sei, idr}), annexB({sps, pps})},
      {annexB({Nal(0x41, 20), slice2}), annexB({Nal(0x41, 20)})},
      {annexB({Nal(0x67, 3), idr}), Bytes()},
  };
  for (size_t k = 0; k < cases.size(); ++k) {
    const Bytes stored = LengthPrefixed(cases[k].in);
    PacketPtr p = MakePacket(m, stored, 0, 0, false);
    Packet* out = st.demuxUpdatePacket(mux.io, p.get());
    ASSERT_EQ(out, p.get());
    const Bytes got(out->Data(), out->Data() + out->Size());
    // The restored head, then the rest as it was stored.
    Bytes expect = cases[k].restored;
    expect.insert(expect.end(), stored.begin() + static_cast<long>(expect.size()), stored.end());
    EXPECT_EQ(got, expect) << k;
    EXPECT_EQ(out->IsKey(), k != 3) << k;
  }

  LogCapture log(kiv::dbg::E);
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, nullptr), nullptr);
  EXPECT_TRUE(log.Has("!pkt,IStream GetPacket null!"));
  Packet* bad = reinterpret_cast<Packet*>(intptr_t(-1));
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, bad), bad);
  EXPECT_TRUE(log.Has("(pkt == (Packet*)-1),IStream GetPacket failed!"));
  // A length that points past the sample reads nothing beyond it.
  PacketPtr cut = MakePacket(m, Bytes{0, 0, 0, 1, 0x09, 0, 0, 0x10, 0x00}, 0, 0, false, 0);
  EXPECT_EQ(st.demuxUpdatePacket(mux.io, cut.get()), cut.get());
  st.Track(nullptr);
}

// A stream made by an encoder: every sample read back from the file turns into the access unit that
// went in, and the tables parse back into the samples that were written.
TEST(StreamH264, EncodedStreamRoundTrip) {
  if (std::system("ffmpeg -version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no ffmpeg";
  iotest::TempDir dir;
  const std::string path = dir.file("x.h264");
  const std::string cmd = "ffmpeg -loglevel error -y -f lavfi -i testsrc=size=64x48:rate=25 -t 1 -pix_fmt yuv420p "
                          "-c:v libx264 -g 10 -bsf:v h264_mp4toannexb -f h264 " + path;
  if (std::system(cmd.c_str()) != 0) GTEST_SKIP() << "ffmpeg without libx264";
  boxweave::H264Description desc;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeH264(path, desc, error)) << error;
  MediaPtr media(boxweave::NewH264Media(desc, kiv::base::Fraction(25, 1)));
  ASSERT_NE(media, nullptr);

  MuxRig rig;
  rig.tags->videosampleperchunk = 4;
  auto* st = dynamic_cast<StreamH264*>(rig.New("h264"));
  ASSERT_TRUE(st->setString("frameRate", "25/1"));
  ASSERT_TRUE(rig.Config(st, media.get()));
  boxweave::H264Reader reader;
  ASSERT_TRUE(reader.Open(path));
  std::vector<Bytes> units;
  std::vector<bool> keys;
  while (Packet* p = reader.NextPacket(media.get())) {
    ASSERT_NE(p, boxweave::PacketError());
    units.emplace_back(p->Data(), p->Data() + p->Size());
    keys.push_back(p->IsKey());
    ASSERT_TRUE(st->AddPacket(*p, rig.io, 0));
    p->Release();
  }
  ASSERT_EQ(units.size(), 25u);
  ASSERT_TRUE(st->CleanFifoData(rig.io, 0));
  ASSERT_TRUE(st->MuxUpdate(600, false));
  const std::vector<ChunkParam> written = *st->MuxChunkList();
  ASSERT_EQ(written.size(), 24u);  // six groups of four; the last frame is dropped with the fifo

  rig.mdat->fill(rig.io);  // the final size into the header
  rig.moov->Fill(rig.io, true);
  rig.io.Seek(0, kiv::Position::front);
  croot root;
  AttrSet ap;
  ASSERT_TRUE(root.Parse(rig.io, ap, true));
  auto* stbl = FindBox<cstbl>(&root, "stbl");
  ASSERT_NE(stbl, nullptr);
  const std::vector<ChunkParam>& read = *stbl->ChunkList();
  ASSERT_EQ(read.size(), written.size());

  StreamH264 demux;
  demux._trak = FindBox<IBox>(&root, "trak");
  ASSERT_TRUE(demux.demuxConfig(nullptr));
  for (size_t i = 0; i < read.size(); ++i) {
    ASSERT_EQ(read[i].size, units[i].size()) << i;
    EXPECT_EQ((read[i].flags & 1) != 0, keys[i]) << i;
    const Bytes stored(rig.io.Data() + read[i].offset, rig.io.Data() + read[i].offset + read[i].size);
    ASSERT_EQ(stored, LengthPrefixed(units[i])) << i;
    PacketPtr p = MakePacket(demux.Media(), stored, 0, 0, false);
    demux.demuxUpdatePacket(rig.io, p.get());
    const Bytes back(p->Data(), p->Data() + p->Size());
    if (!keys[i]) {
      EXPECT_EQ(back, units[i]) << i;
    } else {
      // Key samples: the sets in front come back; the units behind the SEI keep their lengths.
      const size_t sets = 8 + desc.spsBytes.size() + desc.ppsBytes.size();
      EXPECT_EQ(Bytes(back.begin(), back.begin() + static_cast<long>(sets)),
                Bytes(units[i].begin(), units[i].begin() + static_cast<long>(sets)));
      EXPECT_TRUE(p->IsKey());
    }
  }
  demux.Track(nullptr);
}
