// Fragment boxes: byte layouts written and read, the size each box announces before it is written,
// damaged counts, and the top-level walk of a fragmented file.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using namespace boxtest::kit;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;
using namespace kiv::plugin::mov::fmp4;

// Each box written from its fields gives the hand-laid bytes and announces their size beforehand;
// read from those bytes, it writes them again, so every field landed where the writer takes it.
TEST(FragBox, LayoutsWrittenAndReadBack) {
  unsigned items[] = {0, 0x100, 90000, 0x2000, 180000, 0x30000};
  const std::string entries = " 00000000 00000100 010101 00015f90 00002000 010101 0002bf20 00030000 010101";
  struct Case {
    const char* name;
    std::function<IBox*()> make;
    Bytes bytes;
  } cases[] = {
      {"mfhd after two fragments", [] { auto* m = new cmfhd; m->update(); m->update(); return m; },
       B("mfhd", "00000000 00000002")},
      {"mfhd numbered", [] { return new cmfhd(0x01020304); }, B("mfhd", "00000000 01020304")},
      {"tfhd with default flags", [] { auto* t = new ctfhd(1024, true); t->TrackId(2); return t; },
       B("tfhd", "00020028 00000002 00000400 01010000")},
      {"tfhd without", [] { return new ctfhd(1024, false); }, B("tfhd", "00020008 00000000 00000400")},
      {"tfhd of a track", [] { return new ctfhd(7); }, B("tfhd", "00000000 00000007")},
      {"tfhd with every field, in table order",
       [] { auto* t = new ctfhd(7); t->Flags(0x2003b); t->BaseDataOffset(0x0000000100000200ull);
         t->SampleDescriptionIndex(1); t->DefaultSampleDuration(512); t->DefaultSampleSize(1403);
         t->DefaultSampleFlags(0x1010000); return t; },
       B("tfhd", "0002003b 00000007 0000000100000200 00000001 00000200 0000057b 01010000")},
      {"tfdt v0", [] { auto* t = new ctfdt(0); t->BaseMediaDecodeTime(0x123456789ull); return t; },
       B("tfdt", "00000000 23456789")},
      // The stream sets the value itself.
      {"tfdt v1", [] { auto* t = new ctfdt(1); t->BaseMediaDecodeTime(0x123456789ull); t->update(); return t; },
       B("tfdt", "01000000 0000000123456789")},
      // Flags and composition offset are not in this form.
      {"trun of durations and sizes",
       [] { auto* r = new ctrun; r->Flags(0x301); r->DataOffset(0x78); r->AddItem(512, 1000);
         r->AddItem(256, 20, 0x55, 7); return r; },
       B("trun", "00000301 00000002 00000078 00000200 000003e8 00000100 00000014")},
      {"trun with every member",
       [] { auto* r = new ctrun; r->Flags(0xf05); r->DataOffset(0x78); r->FirstSampleFlags(2);
         r->AddItem(10, 11, 12, 13); return r; },
       B("trun", "00000f05 00000001 00000078 00000002 0000000a 0000000b 0000000c 0000000d")},
      {"tfra v0", [&items] { auto* t = new ctfra(0, 3, items); t->TrackId(2); return t; },
       B("tfra", "00000000 00000002 00000000 00000003" + entries)},
      {"tfra v1 keeps 32-bit entries", [&items] { auto* t = new ctfra(1, 3, items); t->TrackId(2); return t; },
       B("tfra", "01000000 00000002 00000000 00000003" + entries)},
      {"tfra length sizes as held", [] { auto* t = new ctfra(0, 0, nullptr); t->LengthSizes(0x3f); return t; },
       B("tfra", "00000000 00000000 0000003f 00000000")},
      {"mfro", [] { auto* m = new cmfro(0); m->MfraSize(70); return m; }, B("mfro", "00000000 00000046")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<IBox> box(c.make());
    EXPECT_EQ(box->statisticsSize(), c.bytes.size());
    EXPECT_EQ(Written(*box), c.bytes);
    Tree p(c.bytes);
    ASSERT_TRUE(p.ok);
    ASSERT_EQ(p.at()->TypeName(), box->TypeName());
    EXPECT_EQ(Written(*p.at()), c.bytes);
  }
}

// Members whose flag is not set take no bytes and stay zero.
TEST(FragBox, TrunLeavesUnflaggedMembersZero) {
  Tree p(B("trun", "00000a05 00000002 00000140 02000000 0000057b 00000400 0000007a 00000000"));
  auto* r = p.at<ctrun>(0);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->FirstSampleFlags(), 0x2000000u);
  ASSERT_EQ(r->Items().size(), 2u);
  EXPECT_EQ(r->Items()[0].duration, 0u);
  EXPECT_EQ(r->Items()[0].flags, 0u);
  EXPECT_EQ(r->Items()[0].composition_offset, 1024u);
  EXPECT_TRUE(r->parseFinal());
}

TEST(FragBoxDamaged, CountsAreClampedToTheBox) {
  struct Case {
    const char* name;
    Bytes box;
    const char* log;
    Bytes kept;  // the box written again
  } cases[] = {
      {"trun of a million", B("trun", "00000301 000f4240 00000008 00000028 00000064 00000028 000000c8"), "clamped to 2",
       B("trun", "00000301 00000002 00000008 00000028 00000064 00000028 000000c8")},
      {"trun, one and a half entries of 16 bytes",
       B("trun", "00000f00 00000003 00000001 00000002 00000003 00000004 00000005 00000006"), "_sample_count*16>24",
       B("trun", "00000f00 00000001 00000001 00000002 00000003 00000004")},
      // Samples without fields take no bytes, but the list still has a bound.
      {"trun of empty samples", B("trun", "00000001 ffffffff 00000008"), "clamped", B("trun", "00000001 00010000 00000008")},
      {"tfra of 4G", B("tfra", "00000000 00000001 00000000 ffffffff 0000000a 00000014 010101 0000001e 00000028 010101 0909"),
       "_num*11>24", B("tfra", "00000000 00000001 00000000 00000002 0000000a 00000014 010101 0000001e 00000028 010101")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    Tree p(Cat({c.box, Box("free")}));
    ASSERT_TRUE(p.ok);
    ASSERT_EQ(p.shape(), std::string(p.at()->FCCString()) + " free");
    EXPECT_EQ(Written(*p.at()), c.kept);
    EXPECT_TRUE(log.Has(c.log));
  }
  // The header claims 4 MB, the stream ends after one entry: the count is held to the stream, and the
  // box fails as one that runs past the file.
  LogCapture log;
  IOBuffer io;
  AttrSet ap;
  ctrun big;
  EXPECT_FALSE(ParseAlone(big, Cat({Header(4u << 20, "trun"), H("00000200 00030d40 0000004d")}), io, ap, 4u << 20));
  ASSERT_EQ(big.Items().size(), 1u);
  EXPECT_EQ(big.Items()[0].size, 77u);
  EXPECT_TRUE(log.Has("200000 clamped to 1"));
  EXPECT_TRUE(log.Has("pos1>io.Size()"));
}

TEST(FragBoxDamaged, ShortHeadsReadAsZeroAndSiblingsGoOn) {
  LogCapture quiet;
  Tree p(Box("traf", Cat({
                         Box("mfhd"),                                // no version/flags
                         B("tfhd", "0000003b 00000006 00000000"),    // base offset cut
                         B("trun", "00000301"),                      // no count
                         B("tfdt", "01000000 00000001"),             // half a 64-bit time
                         B("tfra", "00000000 00000003 00000000 00000032"),  // no entries at all
                         B("mfro", "00000000"),
                         Box("free"),
                     })));
  ASSERT_TRUE(p.ok);
  EXPECT_EQ(p.shape(), "traf(mfhd tfhd trun tfdt tfra mfro free)");
  auto* h = p.find<ctfhd>("tfhd");
  EXPECT_EQ(h->TrackId(), 6u);
  EXPECT_EQ(h->BaseDataOffset(), 0u);
  EXPECT_EQ(h->DefaultSampleFlags(), 0u);
  EXPECT_EQ(p.find<ctrun>("trun")->Items().size(), 0u);
  EXPECT_EQ(p.find<ctfdt>("tfdt")->BaseMediaDecodeTime(), 0u);
  EXPECT_EQ(p.find<ctfra>("tfra")->getEntryNum(), 0u);
  EXPECT_EQ(p.find<ctfra>("tfra")->TrackId(), 3u);
  EXPECT_EQ(p.find<cmfro>("mfro")->MfraSize(), 0u);
}

// The fragmented file's root reads the boxes up to the first moof, and no deeper than it must.
TEST(FragBoxFile, TopLevelWalk) {
  struct Case {
    const char* name;
    Bytes bytes;
    bool ok;
    const char* shape;
    const char* log;
  } cases[] = {
      {"stops at the first moof",
       Cat({Box("ftyp", Fill(8)), Box("moov", Box("mvex", Fill(4))), Box("moof", B("mfhd", "00000000 00000001")),
            Box("mdat", Fill(10))}),
       true, "ftyp moov(mvex)", ""},
      {"the last box is not walked into", Cat({Box("ftyp", Fill(8)), Header64(24, "free"), Fill(8), Box("free", Fill(4))}),
       true, "ftyp free", "12>4"},
      {"size zero", Cat({Box("ftyp", Fill(8)), Header(0, "free"), Fill(20)}), true, "ftyp", ":size==0"},
      {"32-bit size past the end", Cat({Box("ftyp", Fill(8)), Header(1000, "moov"), Fill(20)}), true, "ftyp", "1000>20"},
      {"64-bit size past the end", Cat({Box("ftyp", Fill(8)), Header64(1ull << 40, "junk"), Fill(32)}), false, "ftyp junk",
       "!bx->Parse(io, ap, recurse)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogCapture log;
    IOBuffer io;
    Load(io, c.bytes);
    std::unique_ptr<IBox> root(IBox::New("fmp4"));
    AttrSet ap;
    ASSERT_NE(dynamic_cast<cfmp4*>(root.get()), nullptr);
    EXPECT_EQ(root->Parse(io, ap, true), c.ok);
    EXPECT_EQ(Shape(*root), c.shape);
    EXPECT_TRUE(log.Has(c.log));
    if (c.ok) {
      EXPECT_EQ(io.Position(), io.Size());
      EXPECT_EQ(root->RealSize(), c.bytes.size());
    }
  }
}
