// Box core: writing with size patching, the tree operations, sizes and the factory.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

// A leaf with a payload of its own; optionally with the size limit that no production box sets.
struct BlobBox : IBox {
  BlobBox(const char* fcc, Bytes data, unsigned limit = 0) : IBox(fcc), data(std::move(data)) { _size_limit = limit; }
  void fill(IO& io) override {
    IBox::fill(io);
    io.Write(data.data(), static_cast<long long>(data.size()));
  }
  Bytes data;
};

Bytes Written(IBox& box) {
  IOBuffer io;
  box.Fill(io, true);
  return io.Bytes();
}

}  // namespace

TEST(BoxFill, HeaderIsPatchedWithWhatWasWritten) {
  BlobBox box("free", {1, 2, 3});
  box.Size(1234);  // a hand-set 32-bit size only selects the form
  IOBuffer io;
  EXPECT_EQ(box.Fill(io, true), 11);
  EXPECT_EQ(io.Bytes(), Cat({Header(11, "free"), Bytes{1, 2, 3}}));
  EXPECT_EQ(box.Size(), 11u);
  EXPECT_EQ(io.Position(), 11);

  BlobBox large("mdat", {9, 9, 9, 9});
  large.Size(1);
  EXPECT_EQ(Written(large), Cat({Header64(20, "mdat"), Bytes{9, 9, 9, 9}}));
  EXPECT_EQ(large.Size(), 1u);
  EXPECT_EQ(large.RealSize(), 20u);
  EXPECT_EQ(large.PayloadSize(), 4u);
}

TEST(BoxFill, NestedSizesVersionFlagsAndListCount) {
  // dinf { dref(count) { url, url in the 64-bit form with flags, blob } }, written behind other data.
  IBox dinf("dinf");
  auto* dref = new IMoovList("dref");
  dinf.Add(dref);
  dref->Add(new IMoov("url ", 0));
  auto* big = new IMoov("url ", 2);
  big->Size(1);
  big->Flags(0x7f123456);  // 24 bits are kept
  dref->Add(big);
  dref->Add(new BlobBox("blob", {0xab}));
  EXPECT_EQ(dref->Num(), 3u);

  Bytes url = Cat({Header(12, "url "), Bytes{0, 0, 0, 0}});
  Bytes url64 = Cat({Header64(20, "url "), Bytes{2, 0x12, 0x34, 0x56}});
  Bytes blob = Cat({Header(9, "blob"), Bytes{0xab}});
  Bytes drefBytes = Cat({Header(57, "dref"), Bytes{0, 0, 0, 0, 0, 0, 0, 3}, url, url64, blob});
  IOBuffer io;
  io.Write("pre", 3);
  EXPECT_EQ(dinf.Fill(io, true), 65);
  EXPECT_EQ(io.Bytes(), Cat({Bytes{'p', 'r', 'e'}, Header(65, "dinf"), drefBytes}));
  EXPECT_EQ(dinf.Offset(), 3);
  EXPECT_EQ(dref->Offset(), 11);
  EXPECT_EQ(big->Offset(), 39);
  EXPECT_EQ(big->RealSize(), 20u);
  // The sizes known before writing predict what was written, for boxes without free payload.
  delete dref->Del(dref->Child()->Next()->Next());
  EXPECT_EQ(dinf.StatisticsSize(), 8u + 16u + 12u + 12u);
}

TEST(BoxFill, SizeLimitReplacesTheStoredSizeOnly) {
  LogCapture log;
  BlobBox box("lim ", Bytes(12, 0), 10);
  EXPECT_EQ(Written(box), Cat({Header(20, "lim "), Bytes(12, 0)}));
  EXPECT_TRUE(log.Has("20>10"));
  EXPECT_EQ(box.Size(), 10u);

  BlobBox wide("lim ", Bytes(12, 0), 10);
  wide.Size(1);
  EXPECT_EQ(Written(wide)[15], 28);
  EXPECT_TRUE(log.Has("28>10"));
  EXPECT_EQ(wide.Size(), 1u);
  EXPECT_EQ(wide.ExtendedSize(), 10u);

  BlobBox within("lim ", Bytes(12, 0), 20);
  Written(within);
  EXPECT_EQ(within.Size(), 20u);
  EXPECT_EQ(log.Count("|E|"), 2u);
}

TEST(BoxFill, FakeBoxesAndTheRoot) {
  cfakebox url(FCC("url "));
  EXPECT_EQ(Written(url), Cat({Header(12, "url "), Bytes{0, 0, 0, 1}}));
  EXPECT_EQ(url.StatisticsSize(), 12u);
  cfakebox wide(FCC("wide"));
  EXPECT_EQ(Written(wide), Header(8, "wide"));
  EXPECT_EQ(wide.StatisticsSize(), 8u);

  // The root has no header: its children stand one after another, nothing is patched.
  croot root;
  root.Add(new IBox("ftyp"));
  root.Add(new BlobBox("mdat", {5}));
  EXPECT_EQ(Written(root), Cat({Header(8, "ftyp"), Header(9, "mdat"), Bytes{5}}));
}

TEST(BoxTree, AddAndDelRepairLinks) {
  IMoovList parent("trak");
  EXPECT_EQ(parent.Add(nullptr), nullptr);
  IBox* a = parent.Add(new IBox("aaaa"));
  IBox* b = parent.Add(new IBox("bbbb"));
  IBox* c = parent.Add(new IBox("cccc"));
  IBox* g = b->Add(new IBox("gggg"));
  EXPECT_EQ(parent.Num(), 3u);
  EXPECT_EQ(c->Prev(), b);
  EXPECT_EQ(b->Parent(), &parent);

  EXPECT_EQ(parent.Del(nullptr), nullptr);
  EXPECT_EQ(parent.Del(g), nullptr);  // a grandchild is no child
  EXPECT_EQ(parent.Del(b), b);
  EXPECT_EQ(a->Next(), c);
  EXPECT_EQ(c->Prev(), a);
  EXPECT_EQ(b->Prev(), a);  // its own links stay
  EXPECT_EQ(b->Next(), c);
  delete b;
  EXPECT_EQ(parent.Del(a), a);
  EXPECT_EQ(parent.Child(), c);
  EXPECT_EQ(c->Prev(), nullptr);
  delete a;
}

TEST(BoxTree, OwnershipOfChildren) {
  const long long before = kiv::object_base::LiveObjects();
  auto* tree = new croot;
  tree->Add(new IBox("aaaa"))->Add(new IMoovList("bbbb"))->Add(new cfakebox(FCC("cccc")));
  tree->Add(new IMoov("dddd", 0));
  EXPECT_EQ(kiv::object_base::LiveObjects(), before + 5);
  delete tree;
  EXPECT_EQ(kiv::object_base::LiveObjects(), before);

  auto* parent = new IBox("moov");
  IBox* first = parent->Add(new IBox("aaaa"));
  IBox* second = parent->Add(new IBox("bbbb"));
  EXPECT_EQ(parent->RemoveChild(), first);
  EXPECT_EQ(parent->Child(), nullptr);
  delete parent;  // the forgotten children live on
  EXPECT_EQ(kiv::object_base::LiveObjects(), before + 2);
  delete first;
  delete second;
}

TEST(BoxTree, FindIsDepthFirst) {
  croot root;
  IBox* trak1 = root.Add(new IBox("trak"));
  IBox* tkhd = trak1->Add(new IBox("tkhd"));
  IBox* mdia = trak1->Add(new IBox("mdia"));
  IBox* mdhd1 = mdia->Add(new IBox("mdhd"));
  IBox* trak2 = root.Add(new IBox("trak"));
  trak2->Add(new IBox("mdhd"));
  IBox* udta = root.Add(new IBox("udta"));

  EXPECT_EQ(root.Find("mdhd"), mdhd1);
  EXPECT_EQ(root.Find("trak"), trak1);
  EXPECT_EQ(root.Find(FCC("udta")), udta);
  EXPECT_EQ(root.Find("none"), nullptr);
  // A box with children searches its own subtree only ...
  EXPECT_EQ(trak2->Find("tkhd"), nullptr);
  EXPECT_EQ(trak1->Find("udta"), nullptr);
  // ... one without children goes on along its following siblings.
  EXPECT_EQ(tkhd->Find("mdhd"), mdhd1);
  EXPECT_EQ(mdhd1->Find("tkhd"), nullptr);
}

TEST(BoxTree, FindComparesAllSixtyFourBits) {
  croot root;
  IBox* longer = root.Add(new IBox("abcdefgh"));
  IBox* plain = root.Add(new IBox("abcd"));
  IBox* nameless = root.Add(new IBox(static_cast<const char*>(nullptr)));
  EXPECT_EQ(longer->FourCC(), FCC("abcd"));
  EXPECT_STREQ(longer->FCCString(), "abcdefgh");
  EXPECT_STREQ(longer->Name(), "abcdefgh");
  EXPECT_EQ(root.Find("abcd"), plain);
  EXPECT_EQ(root.Find("abcdefghij"), longer);  // eight characters at most
  EXPECT_EQ(root.Find(static_cast<const char*>(nullptr)), nameless);
  EXPECT_EQ(root.Find(""), nameless);
}

TEST(BoxSizes, FormsAndBounds) {
  IBox box("free");
  box.Offset(50);
  box.Size(1);
  box.ExtendedSize(0x100000000ull);
  EXPECT_EQ(box.PayloadPostion(), 66);
  EXPECT_EQ(box.PayloadSize(), 0x100000000ull - 16);
  box.RealSize(0x200000000ull);  // goes where the form says
  EXPECT_EQ(box.Size(), 1u);
  EXPECT_EQ(box.ExtendedSize(), 0x200000000ull);

  box.Size(0);
  box.RealSize(0x300000005ull);
  EXPECT_EQ(box.Size(), 0x300000005ull);
  box.Size(7u);  // the setter clears the upper word
  EXPECT_EQ(box.Size(), 7u);
  EXPECT_EQ(box.PayloadSize(), 0u);  // a size below its header has no payload

  IOBuffer io;
  box.Size(10);
  EXPECT_TRUE(box.SeekToBoxEnd(io));
  EXPECT_EQ(io.Position(), 60);
  box.Size(1);
  box.ExtendedSize(~0ull);  // no position can hold that end
  EXPECT_FALSE(box.SeekToBoxEnd(io));
}

TEST(BoxFactory, KnownUnknownAndZeroCodes) {
  LogCapture log;
  IBox* root = IBox::New("rootless");  // four characters are taken
  EXPECT_NE(dynamic_cast<croot*>(root), nullptr);
  delete root;

  EXPECT_EQ(IBox::New(0u, 0u), nullptr);
  EXPECT_EQ(IBox::New(""), nullptr);
  EXPECT_EQ(log.Count("!fcc"), 2u);

  for (const char* code : {"wide", "wave", "frma", "chan", "lpcm"}) {
    IBox* box = IBox::New(code);
    ASSERT_NE(dynamic_cast<cfakebox*>(box), nullptr) << code;
    EXPECT_STREQ(box->FCCString(), code);
    delete box;
  }
  EXPECT_TRUE(log.Has("|E|kiv: stream/plugin/mp4/common/IBox/"));
  EXPECT_TRUE(log.Has("unknow box:0x65646977"));  // "wide", first character lowest
  EXPECT_EQ(log.Count("unknow box:"), 5u);
}

TEST(BoxPrint, LinksAndDump) {
  IBox moov("moov");
  moov.Add(new IMoov("mvhd", 0));
  std::ostringstream os;
  moov >> os;
  EXPECT_NE(os.str().find("\tmoov"), std::string::npos);
  EXPECT_NE(os.str().find("kiv::plugin::mov::IMoov(unknow)IBox*(nullptr)"), std::string::npos);

  IMoovList dref("dref");
  dref.Add(new cfakebox(FCC("url ")));
  Written(dref);
  std::ostringstream dump;
  dref.Dump(dump);
  EXPECT_EQ(dump.str(),
            "dref offset=0 size=28 version=0 flags=0 entries=1\n"
            "  url  offset=16 size=12\n");
}
