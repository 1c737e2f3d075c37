// Movie, track and media information boxes against hand-laid bytes: written and read back, durations
// patched in place, fillers, and short boxes.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "stream/plugin/mp4/common/Box.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using namespace boxtest::kit;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

const std::string kMatrix = " 00010000 00000000 00000000 00000000 00010000 00000000 00000000 00000000 40000000 ";

IBox* Mvhd(unsigned char v) {
  auto* m = new cmvhd(v);
  m->_createtime = 0x0102030405060708ull, m->_modifytime = 0x1112131415161718ull, m->_timescale = 600;
  m->_duration = 0x2122232425262728ull, m->_volume = 0x80, m->_preview_time = 1, m->_current_time = 7;
  m->_next_track_id = 3;
  return m;
}
IBox* Tkhd(unsigned char v) {
  auto* t = new ctkhd(v);
  t->Flags(15);
  t->_createtime = 0xa1a2a3a4a5a6a7a8ull, t->_modifytime = 0xb1b2b3b4b5b6b7b8ull, t->_track_id = 2;
  t->_duration = 0xc1c2c3c4c5c6c7c8ull, t->_layer = 1, t->_alternate_group = 2, t->_volume = 0x100, t->_matrix[1] = 5;
  t->_width = 1920, t->_height = 1080;
  return t;
}
// mdhd takes its keys from the attribute set.
IBox* Mdhd(unsigned char v) {
  auto* d = new cmdhd(v);
  d->fromAttrSet(AttrSet("createtime=0x100000001;modifytime=2;duration=0x300000004;create_time=9"));
  d->_timescale = 48000, d->_language = 21956;
  return d;
}
const std::string kTkhdTail = " 8*00 0001 0002 0100 0000 00010000 00000005 00000000 00000000 00010000 00000000 00000000"
                              " 00000000 40000000 0780 0000 0438 0000";

std::vector<RoundTrip> Boxes() {
  return {
      {"FtypThreeBrands",
       [] {
         static unsigned list[3] = {FCC("mp42"), FCC("isom"), FCC("ifrm")};
         auto* f = new cftyp;
         f->_major_brand = FCC("mp42"), f->_minor_version = 1, f->_compatible_brands = list, f->_compatible_brands_cnt = 3;
         return f;
       },
       B("ftyp", "'mp42' 00000001 'mp42' 'isom' 'ifrm'")},
      {"FtypDefault", [] { return new cftyp; }, B("ftyp", "'qt  ' 00000000 'qt  ' 00000000")},
      {"MvhdV0", [] { return Mvhd(0); },
       B("mvhd", "00000000 05060708 15161718 00000258 25262728 00010000 0080 10*00" + kMatrix +
                     "00000001 16*00 00000007 00000003")},
      {"MvhdV1", [] { return Mvhd(1); },
       B("mvhd", "01000000 0102030405060708 1112131415161718 00000258 2122232425262728 00010000 0080 10*00" + kMatrix +
                     "00000001 16*00 00000007 00000003")},
      {"TkhdV0", [] { return Tkhd(0); }, B("tkhd", "0000000f a5a6a7a8 b5b6b7b8 00000002 00000000 c5c6c7c8" + kTkhdTail)},
      {"TkhdV1", [] { return Tkhd(1); },
       B("tkhd", "0100000f a1a2a3a4a5a6a7a8 b1b2b3b4b5b6b7b8 00000002 00000000 c1c2c3c4c5c6c7c8" + kTkhdTail)},
      {"MdhdV0", [] { return Mdhd(0); }, B("mdhd", "00000000 00000001 00000002 0000bb80 00000004 55c4 0000")},
      {"MdhdV1", [] { return Mdhd(1); },
       B("mdhd", "01000000 0000000100000001 0000000000000002 0000bb80 0000000300000004 55c4 0000")},
      {"ElstV1",
       [] {
         auto* e = new celst(1);
         e->Add(celst::Item{0x100000000ull, -1, 0x8000});
         return e;
       },
       B("elst", "01000000 00000001 0000000100000000 ffffffffffffffff 00008000")},
      {"MehdV1",
       [] {
         auto* m = new cmehd(1);
         m->_duration = 0x100000005ull;
         return m;
       },
       B("mehd", "01000000 0000000100000005")},
      {"Trex",
       [] {
         auto* t = new ctrex(0);
         t->_track_id = 2, t->_default_sample_description_index = 3, t->_default_sample_duration = 4;
         t->_default_sample_size = 5, t->_default_sample_flags = 0x10000;
         return t;
       },
       B("trex", "00000000 00000002 00000003 00000004 00000005 00010000")},
      {"Hdlr",
       [] {
         auto* h = new chdlr;
         h->_component_type = FCC("mhlr"), h->_component_subtype = FCC("vide"), h->_component_manufacturer = FCC("quor");
         h->ComponentName("Video Handler", 14);  // the terminator is counted, as the profile does
         return h;
       },
       B("hdlr", "00000000 'mhlr' 'vide' 'quor' 00000000 00000000 0e 'Video Handler' 00")},
      {"Vmhd",
       [] {
         auto* v = new cvmhd;
         v->Flags(1), v->_graphics_mode = 0x40, v->_opcolor_red = 0x8000, v->_opcolor_blue = 3;
         return v;
       },
       B("vmhd", "00000001 0040 8000 0000 0003")},
      {"Smhd",
       [] {
         auto* s = new csmhd;
         s->_balance = 0x0100;
         return s;
       },
       B("smhd", "00000000 0100 0000")},
      // A dref counts the entries it holds.
      {"DinfWithUrlAndAlis",
       [] {
         auto* dinf = new cdinf;
         IBox* dref = dinf->Add(new cdref);
         auto* url = new curl_;
         auto* alis = new calis(FCC("alis"));
         url->Flags(1), alis->Flags(1), dref->Add(url), dref->Add(alis);
         return dinf;
       },
       H("00000030 'dinf' 00000028 'dref' 00000000 00000002 0000000c 'url ' 00000001 0000000c 'alis' 00000001")},
      // Read on its own, tapt skips its children.
      {"Tapt",
       [] {
         auto* t = new ctapt;
         for (caperture* b : {static_cast<caperture*>(new cclef), static_cast<caperture*>(new cprof),
                              static_cast<caperture*>(new cenof)})
           b->_width = 1280, b->_height = 720, t->Add(b);
         return t;
       },
       Cat({Header(68, "tapt"), B("clef", "00000000 0500 0000 02d0 0000"), B("prof", "00000000 0500 0000 02d0 0000"),
            B("enof", "00000000 0500 0000 02d0 0000")}),
       false},
      {"SphericalUuid", [] { return new cuuid; },
       H("000001c6 'uuid' ffcc8263f8554a938814587a02521fdd '<?xml version=\"1.0\"?>'"
         "'<rdf:SphericalVideo' 0a 'xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"' 0a"
         "'xmlns:GSpherical=\"http://ns.google.com/videos/1.0/spherical/\">'"
         "'<GSpherical:Spherical>true</GSpherical:Spherical><GSpherical:Stitched>true</GSpherical:Stitched>'"
         "'<GSpherical:StitchingSoftware>Quorelvan 4100 software</GSpherical:StitchingSoftware>'"
         "'<GSpherical:ProjectionType>equirectangular</GSpherical:ProjectionType></rdf:SphericalVideo>'"),
       false},
  };
}

class MovieBox : public ::testing::TestWithParam<RoundTrip> {};
TEST_P(MovieBox, WrittenAndReadBack) { ExpectRoundTrip(GetParam()); }
INSTANTIATE_TEST_SUITE_P(Kinds, MovieBox, ::testing::ValuesIn(Boxes()),
                         [](const ::testing::TestParamInfo<RoundTrip>& i) { return std::string(i.param.name); });

}  // namespace

// Reading keeps at most four brands, an empty edit's sign in version 0, a hdlr name with or without its
// count, and the children of gmhd and dref; udta and tapt are skipped whole.
TEST(MovieBoxRead, WhatReadingKeeps) {
  const std::string hdlr = "00000000 'mhlr' 'vide' 'appl' 00000000 00000000 ";
  const struct {
    const char* name;
    Bytes in;
    const char* shape;
    Bytes again;  // the first box written again
  } cases[] = {
      {"seven brands", B("ftyp", "'isom' 00000200 'isom' 'iso2' 'avc1' 'mp41' 'mp42' 'iso4' 'hvc1'"), "ftyp",
       B("ftyp", "'isom' 00000200 'isom' 'iso2' 'avc1' 'mp41'")},
      {"elst version 0", B("elst", "00000000 00000002 00000bb8 00000000 00010000 000001f4 ffffffff 00010000"), "elst",
       B("elst", "00000000 00000002 00000bb8 00000000 00010000 000001f4 ffffffff 00010000")},
      {"hdlr counted, longer than the buffer", B("hdlr", hdlr + "28 'ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEFGHIJKLMN'"), "hdlr",
       B("hdlr", hdlr + "20 'ABCDEFGHIJKLMNOPQRSTUVWXYZABCDEF'")},
      {"hdlr empty name", B("hdlr", hdlr + "00"), "hdlr", B("hdlr", hdlr + "00")},
      // 0x56 exceeds the 12 bytes of room, so it is the first character.
      {"hdlr without a count", B("hdlr", hdlr + "'Video Handler'"), "hdlr", B("hdlr", hdlr + "0d 'Video Handler'")},
      {"hdlr without a count, long", B("hdlr", hdlr + "50*78"), "hdlr", B("hdlr", hdlr + "20 32*78")},
      {"gmhd", Box("gmhd", B("gmin", "00000000 0040 0000 0000 0000 ff00 0000")), "gmhd(gmin)",
       Box("gmhd", B("gmin", "00000000 0040 0000 0000 0000 ff00 0000"))},
      {"dref claiming seven", B("dref", "00000000 00000007 0000000c 'url ' 00000001 0000000c 'alis' 00000001"),
       "dref(url  alis)", B("dref", "00000000 00000002 0000000c 'url ' 00000001 0000000c 'alis' 00000001")},
      {"udta", H("00000018 'udta' a9 'nam' 0000000c 'QUOR' 'vers'"), "udta", H("00000008 'udta'")},
      {"QUOR", B("QUOR", "'abcd'"), "QUOR", B("QUOR", "'abcd'")},
      {"enof alone", B("enof", "00000000 0040 0000 0030 0000"), "enof", B("enof", "00000000 0040 0000 0030 0000")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Tree p(Cat({c.in, Box("free")}));
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.shape(), std::string(c.shape) + " free");
    EXPECT_EQ(Written(*p.at(0)), c.again);
  }
  Tree brands(B("ftyp", "'isom' 00000200 'isom' 'iso2' 'avc1' 'mp41' 'mp42'"));
  AttrSet a;  // codes are shown as characters
  brands.at(0)->fields(a);
  EXPECT_STREQ(a.Get("compatible_brands"), "isom,iso2,avc1,mp41");
}

// A duration set once the media is written is patched into the box where it stands in the file:
// only the field changes, and the stream is left where it was.
TEST(MovieBoxDuration, PatchLandsOnTheFieldInEveryForm) {
  struct Case {
    const char* name;
    std::function<IBox*()> make;
    size_t at;  // of the field in the box
    Bytes field;
  } cases[] = {
      {"mvhd v0", [] { return new cmvhd(0); }, 24, H("00abcdef")},
      {"mvhd v0, 64-bit size", [] { auto* b = new cmvhd(0); b->Size(1); return b; }, 32, H("00abcdef")},
      {"mvhd v1", [] { return new cmvhd(1); }, 32, H("0000000000abcdef")},
      {"tkhd v0, 64-bit size", [] { auto* b = new ctkhd(0); b->Size(1); return b; }, 36, H("00abcdef")},
      {"tkhd v1", [] { return new ctkhd(1); }, 36, H("0000000000abcdef")},
      {"mdhd v1", [] { return new cmdhd(1); }, 32, H("0000000000abcdef")},
      {"mehd v0", [] { return new cmehd(0); }, 12, H("00abcdef")},
      {"mehd v1, 64-bit size", [] { auto* b = new cmehd(1); b->Size(1); return b; }, 20, H("0000000000abcdef")},
      // The first edit takes the duration; the file keeps its count of two.
      {"elst", [] { auto* e = new celst(0); e->Add(celst::Item{11, 0, 0x10000}); e->Add(celst::Item{22, 5, 0x10000});
         return e; }, 16, H("00abcdef")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<IBox> box(c.make());
    IOBuffer io;
    io.Write("lead", 4);
    box->Fill(io, true);
    io.Write("tail", 4);
    Bytes want = io.Bytes();
    ASSERT_GE(want.size(), 4 + c.at + c.field.size());
    std::copy(c.field.begin(), c.field.end(), want.begin() + static_cast<long>(4 + c.at));
    box->Duration(0xabcdef, &io);
    EXPECT_EQ(io.Bytes(), want);
    EXPECT_EQ(io.Position(), static_cast<long long>(want.size()));
  }
}

// Headers written once: later fills of mdat and edts rewrite the size only, in the form first written.
TEST(MovieBoxHeaders, LaterFillsRewriteOnlyTheSize) {
  IOBuffer io;
  io.Write("ftypftyp", 8);
  cmdat m(0);
  m.Fill(io, true);
  io.Write("payload", 7);
  m.Size(0x20000000), m.fill(io);
  EXPECT_EQ(io.Position(), 23);
  EXPECT_EQ(io.Bytes(), H("'ftypftyp' 20000000 'mdat' 'payload'"));
  IOBuffer io64;
  cmdat w(1);
  w.Fill(io64, true);
  io64.Write("abcd", 4);
  w.ExtendedSize(0x100000014ull), w.fill(io64);
  EXPECT_EQ(io64.Bytes(), H("00000001 'mdat' 0000000100000014 'abcd'"));
  w.Reset(true);  // after reset the next fill is a header again
  w.fill(io64);
  EXPECT_EQ(io64.Bytes().size(), 36u);
  cedts edts;
  auto* one = new celst(0);
  one->Add(celst::Item{100, 0, 0x10000});
  edts.Add(one);
  IOBuffer e;
  e.Write("pad!", 4);
  edts.Fill(e, true);
  EXPECT_EQ(e.Bytes(), H("'pad!' 00000024 'edts' 0000001c 'elst' 00000000 00000001 00000064 00000000 00010000"));
  edts.fill(e);
  EXPECT_EQ(e.Position(), 40);
}

TEST(MovieBoxHeaders, MdatReadSkipsTheBodyAndACutFileFails) {
  Tree p(Cat({B("ftyp", "'qt  ' 00000000"), Box("mdat", Fill(100, 0x42)), Header64(21, "mdat"), Fill(5), Box("moov")}));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "ftyp mdat mdat moov");
  ASSERT_TRUE(p.at<cmdat>(1) && p.at<cmdat>(2));
  EXPECT_EQ(p.at<cmdat>(1)->_pos, 24u);
  EXPECT_EQ(p.at<cmdat>(2)->_pos, 140u);
  LogCapture log;
  IOBuffer io;
  AttrSet ap;
  cmdat m(0);
  EXPECT_FALSE(ParseAlone(m, Cat({Header(1000, "mdat"), Fill(10)}), io, ap, 1000));
  EXPECT_EQ(io.Position(), 18);  // stopped at the end of what is there
}

TEST(MovieBoxFree, ZerosFromNineOnAndTheFillerToTheClusterBoundary) {
  const struct {
    unsigned size;
    Bytes want;
  } sized[] = {{20, H("00000014 'free' 12*00")}, {3, H("00000008 'free'")},
               {70000, Cat({Header(70000, "free"), Bytes(69992, 0)})}};  // more than one zero block
  for (const auto& c : sized) {
    cfree f;
    f.UpdateWriteSize(c.size);
    EXPECT_EQ(Written(f), c.want) << c.size;
  }
  const struct {
    long long at;
    bool wanted;
    long long box;
  } cases[] = {{32760, true, 8}, {32764, true, 32772}, {100, true, 32668}, {65536, true, 0}, {65537, false, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.at);
    IOBuffer io;
    io.Write(Bytes(static_cast<size_t>(c.at), 0).data(), c.at);
    cfree_concate f(32768, [&c](void* arg) { return arg == nullptr && c.wanted; });
    EXPECT_EQ(f.Fill(io, true), c.box);
    EXPECT_EQ(io.Size(), c.at + c.box);
    if (c.box) {
      EXPECT_EQ(Bytes(io.Bytes().begin() + c.at, io.Bytes().begin() + c.at + 8), Header(c.box, "free"));
    }
  }
}

// Fields behind a box's end read as zero, never as the next box's bytes; the next box is read.
TEST(MovieBoxDamaged, ShortBoxesStopAtTheirEnd) {
  struct Case {
    const char* name;
    Bytes box;
    const char* log;
    Bytes kept;  // the box written again
  } cases[] = {
      {"ftyp with a major brand only", B("ftyp", "'mp42'"), "ftyp: payload short", B("ftyp", "'mp42' 00000000")},
      {"mvhd of 40 bytes", B("mvhd", "00000000 00000001 00000002 00000258 00002328 00010000 0100 6*77"),
       "mvhd: payload short", B("mvhd", "00000000 00000001 00000002 00000258 00002328 00010000 0100 74*00")},
      {"mdhd version 1 in the size of version 0", B("mdhd", "01000000 00000001 00000002 00000003 00000004 0005 0006"),
       "mdhd: payload short", B("mdhd", "01000000 0000000100000002 0000000300000004 00050006 8*00 0000 0000")},
      {"elst claiming a million entries, holding one and a half",
       B("elst", "00000000 000f4240 0000000a 00000000 00010000 00000014 00000000"), "elst:_num 1000000>1",
       B("elst", "00000000 00000001 0000000a 00000000 00010000")},
      {"hdlr without flags, mask and name", B("hdlr", "00000000 'mhlr' 'vide' 'quor'"), "hdlr: payload short",
       B("hdlr", "00000000 'mhlr' 'vide' 'quor' 00000000 00000000 00")},
      {"gmin with the vmhd part only", B("gmin", "00000000 0007 0001 0002 0003 0009"), "gmin: payload short",
       B("gmin", "00000000 0007 0001 0002 0003 0009 0000")},
      {"dref entry without version and flags", B("dref", "00000000 00000001 00000008 'url '"), "url : payload short",
       B("dref", "00000000 00000001 0000000c 'url ' 00000000")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    Tree p(Cat({c.box, Box("free", Fill(80, 0x77))}));
    EXPECT_TRUE(p.ok);
    ASSERT_NE(p.at(1), nullptr);
    EXPECT_STREQ(p.at(1)->FCCString(), "free");
    EXPECT_TRUE(log.Has(c.log));
    EXPECT_EQ(Written(*p.at(0)), c.kept);
  }
}
