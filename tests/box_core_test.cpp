// Box core: writing with size patching, the tree operations, sizes and the factory.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"
#include "tests/BoxBytes.h"
#include "tests/LogCapture.h"

using namespace boxtest;
using namespace boxtest::kit;
using kiv::base::IOBuffer;
using namespace kiv::plugin::mov;

namespace {

// A leaf with a payload of its own.
struct BlobBox : IBox {
  BlobBox(const char* fcc, Bytes data) : IBox(fcc), data(std::move(data)) {}
  void fill(IO& io) override {
    IBox::fill(io);
    io.Write(data.data(), static_cast<long long>(data.size()));
  }
  Bytes data;
};

}  // namespace

TEST(BoxFill, HeaderIsPatchedWithWhatWasWrittenInBothForms) {
  BlobBox box("free", {1, 2, 3});
  box.Size(1234);  // a hand-set 32-bit size only selects the form
  IOBuffer io;
  EXPECT_EQ(box.Fill(io, true), 11);
  EXPECT_EQ(io.Bytes(), H("0000000b 'free' 010203"));
  EXPECT_EQ(io.Position(), 11);
  BlobBox large("mdat", {9, 9, 9, 9});
  large.Size(1);
  EXPECT_EQ(Written(large), H("00000001 'mdat' 0000000000000014 09090909"));
  EXPECT_EQ(large.RealSize(), 20u);
  // Fake boxes write a version/flags word only for "url ".
  cfakebox url(FCC("url "));
  EXPECT_EQ(Written(url), H("0000000c 'url ' 00000001"));
  EXPECT_EQ(Written(*std::make_unique<cfakebox>(FCC("wide"))), H("00000008 'wide'"));
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
  IOBuffer io;
  io.Write("pre", 3);
  EXPECT_EQ(dinf.Fill(io, true), 65);
  EXPECT_EQ(io.Bytes(), H("'pre' 00000041 'dinf' 00000039 'dref' 00000000 00000003"
                          " 0000000c 'url ' 00000000"
                          " 00000001 'url ' 0000000000000014 02123456"
                          " 00000009 'blob' ab"));
  EXPECT_EQ(dinf.Offset(), 3);
  EXPECT_EQ(dref->Offset(), 11);
  EXPECT_EQ(big->Offset(), 39);
  // The sizes known before writing predict what was written, for boxes without free payload.
  delete dref->Del(dref->Child()->Next()->Next());
  EXPECT_EQ(dinf.StatisticsSize(), 8u + 16u + 12u + 12u);
}

TEST(BoxTree, AddDelAndOwnership) {
  const long long before = kiv::object_base::LiveObjects();
  {
    IMoovList parent("trak");
    EXPECT_EQ(parent.Add(nullptr), nullptr);
    IBox *a = parent.Add(new IBox("aaaa")), *b = parent.Add(new IBox("bbbb")), *c = parent.Add(new IBox("cccc"));
    IBox* g = b->Add(new IBox("gggg"));
    EXPECT_EQ(parent.Num(), 3u);
    EXPECT_EQ(b->Parent(), &parent);
    EXPECT_EQ(parent.Del(nullptr), nullptr);
    EXPECT_EQ(parent.Del(g), nullptr);  // a grandchild is no child
    EXPECT_EQ(parent.Del(b), b);
    EXPECT_EQ(a->Next(), c);
    EXPECT_EQ(c->Prev(), a);
    delete b;
    EXPECT_EQ(parent.Del(a), a);
    EXPECT_EQ(parent.Child(), c);
    EXPECT_EQ(c->Prev(), nullptr);
    delete a;
  }
  EXPECT_EQ(kiv::object_base::LiveObjects(), before);
}

TEST(BoxTree, FindIsDepthFirst) {
  croot root;
  IBox* trak1 = root.Add(new IBox("trak"));
  IBox* tkhd = trak1->Add(new IBox("tkhd"));
  IBox* mdhd1 = trak1->Add(new IBox("mdia"))->Add(new IBox("mdhd"));
  IBox* trak2 = root.Add(new IBox("trak"));
  trak2->Add(new IBox("mdhd"));
  IBox* udta = root.Add(new IBox("udta"));
  EXPECT_EQ(root.Find("mdhd"), mdhd1);
  EXPECT_EQ(root.Find("trak"), trak1);
  EXPECT_EQ(root.Find(FCC("udta")), udta);
  EXPECT_EQ(root.Find("none"), nullptr);
  // A box with children searches its own subtree only; one without goes on along its siblings.
  EXPECT_EQ(trak2->Find("tkhd"), nullptr);
  EXPECT_EQ(trak1->Find("udta"), nullptr);
  EXPECT_EQ(tkhd->Find("mdhd"), mdhd1);
  EXPECT_EQ(mdhd1->Find("tkhd"), nullptr);
}

TEST(BoxSizes, FormsAndBounds) {
  IBox box("free");
  box.Offset(50); box.Size(1); box.ExtendedSize(0x100000000ull);
  EXPECT_EQ(box.PayloadPostion(), 66);
  EXPECT_EQ(box.PayloadSize(), 0x100000000ull - 16);
  box.RealSize(0x200000000ull);  // goes where the form says
  EXPECT_EQ(box.Size(), 1u);
  EXPECT_EQ(box.ExtendedSize(), 0x200000000ull);
  box.Size(0); box.RealSize(0x300000005ull);
  EXPECT_EQ(box.Size(), 0x300000005ull);
  box.Size(7u);  // the setter clears the upper word
  EXPECT_EQ(box.Size(), 7u);
  EXPECT_EQ(box.PayloadSize(), 0u);  // a size below its header has no payload
}

// Known codes make their class, unknown ones a placeholder that is logged; no code makes nothing.
TEST(BoxFactory, KnownUnknownAndZeroCodes) {
  LogCapture log;
  const char* rows[][2] = {{"moov", "cmoov"}, {"url ", "curl_"}, {"rootless", "croot"}, {"wide", "cfakebox"}};
  for (const auto& r : rows) {
    std::unique_ptr<IBox> b(IBox::New(r[0]));
    ASSERT_NE(b, nullptr) << r[0];
    EXPECT_EQ(b->TypeName(), std::string("kiv::plugin::mov::") + r[1]);
  }
  EXPECT_TRUE(log.Has("unknow box:0x65646977"));  // "wide", first character lowest
  EXPECT_EQ(IBox::New(0u, 0u), nullptr);
  EXPECT_EQ(IBox::New(""), nullptr);
  std::unique_ptr<IBox> big(IBox::New("mdat", 1)), small(IBox::New("mvhd", 1));
  EXPECT_EQ(big->Size(), 1u);
  EXPECT_EQ(small->Size(), 0u) << "only mdat takes the size";
}
