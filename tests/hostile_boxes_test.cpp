// Files made to hurt the box reader: forged counts and sizes, sparse giants, wide and deep trees. Each
// read must end soon, with a bounded amount of memory and a plain true or false.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "BoxBytes.h"
#include "LogCapture.h"
#include "ProcessMemory.h"
#include "StblTestUtil.h"
#include "io_test_util.h"
#include "stream/base/io/IOFile.h"
#include "stream/plugin/mp4/common/BoxFactory.h"

using namespace kiv::plugin::mov;
using namespace boxtest;
using namespace stbltest;
using kiv::base::AttrSet;
using kiv::base::IOBuffer;
using boxtest::kit::Tree;

namespace {

// The bytes at the start of a file that is then stretched to size without taking disk space.
std::string SparseFile(const iotest::TempDir& dir, const Bytes& head, long long size) {
  const std::string path = dir.file("sparse.mov");
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return "";
  const bool ok = std::fwrite(head.data(), 1, head.size(), f) == head.size();
  std::fclose(f);
  return ok && ::truncate(path.c_str(), size) == 0 ? path : "";
}

// A file read as the demuxer reads it, tables in memory.
struct FileTree {
  explicit FileTree(const std::string& path) : ap("codec_fcc=1") {
    opened = !path.empty() && io.Open(path.c_str(), "rb");
    ok = opened && root.Parse(io, ap, true);
  }
  kiv::base::IOFile io;
  AttrSet ap;
  croot root;
  bool opened = false;
  bool ok = false;
};

}  // namespace

// A uniform sample size has no bytes per sample: only the file's size, the chunks and the memory
// budget bound how many records a forged count makes.
TEST(HostileStbl, ForgedSampleCountsInSparseFiles) {
  struct Case {
    const char* name;
    long long fileSize;
    uint32_t sampleSize;
    bool ok;
    unsigned long long records;
    const char* said;
  } cases[] = {
      {"64 MiB of one-byte samples: past the budget", 64ll << 20, 1, false, 0,
       "samples 67108864 > 16777216, the records a list may hold in memory"},
      {"4 GiB of 4 KiB samples: what the file holds", 4ll << 30, 4096, true, 1u << 20, "samples 4294967295 > 1048576"},
  };
  iotest::TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path =
        SparseFile(dir,
                   StblOf({Table("stsc", {1, 1, 0xffffffffu, 1}), Table("stsz", {c.sampleSize, 0xffffffffu}),
                           Table("stco", {1, 0x100})}),
                   c.fileSize);
    LogCapture log;
    FileTree t(path);
    ASSERT_TRUE(t.opened);
    EXPECT_EQ(t.ok, c.ok);
    EXPECT_TRUE(log.Has(c.said));
    auto* stbl = dynamic_cast<cstbl*>(t.root.Find("stbl"));
    ASSERT_NE(stbl, nullptr);
    EXPECT_EQ(stbl->_list.size(), c.records);
    // Nothing is set aside for a list that is refused.
    EXPECT_LE(stbl->_list.capacity(), std::max<size_t>(c.records, 4096));
  }

  // A table of real (if sparse) bytes past the budget is refused before it is read.
  const long long size = 128ll << 20;
  Bytes head = Cat({Table("stsc", {1, 1, 1, 1}), Table("stsz", {0, 0})});
  const Bytes stco = Cat({Header64(static_cast<uint64_t>(size) - 16 - head.size(), "stco"), {0, 0, 0, 0}});
  head = Cat({Header64(static_cast<uint64_t>(size), "stbl"), head, stco});
  Be32(head, 0x2000000);
  LogCapture log;
  FileTree t(SparseFile(dir, head, size));
  ASSERT_TRUE(t.opened);
  EXPECT_FALSE(t.ok);
  EXPECT_TRUE(log.Has("stco: _num 33554410 > 16777216, the records a list may hold in memory"));
  EXPECT_TRUE(log.Has("!stbl: stco refused"));
  auto* table = dynamic_cast<cstco*>(t.root.Find("stco"));
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->_items.capacity(), 0u);
}

namespace {

// A top-level box holding n empty "free" boxes.
Bytes ManyFree(const char* fcc, size_t n) {
  Bytes b = Header64(16 + 8ull * n, fcc);
  b.reserve(b.size() + 8 * n);
  for (size_t i = 0; i < n; ++i) Append(b, Header(8, "free"));
  return b;
}

// n headers, each holding the next and whatever comes behind.
Bytes Nested(const char* fcc, size_t n) {
  Bytes b(8 * n);
  for (size_t i = 0; i < n; ++i) {
    const uint32_t size = static_cast<uint32_t>(8 * (n - i));
    for (int k = 0; k < 4; ++k) {
      b[8 * i + k] = static_cast<unsigned char>(size >> (24 - 8 * k));
      b[8 * i + 4 + k] = static_cast<unsigned char>(fcc[k]);
    }
  }
  return b;
}

std::string Codes(const IBox& parent) {
  std::string s;
  for (const IBox* c = parent.Child(); c; c = c->Next()) s += c->FCCString()[0];
  std::string back;
  const IBox* last = parent.Child();
  while (last && last->Next()) last = last->Next();
  for (const IBox* c = last; c; c = c->Prev()) back.insert(back.begin(), c->FCCString()[0]);
  return s == back ? s : s + "!=" + back;
}

}  // namespace

// Appending keeps its place at the end through every way a child list changes.
TEST(HostileTree, AppendAfterEveryRelink) {
  struct Case {
    const char* name;
    std::function<void(IBox&, IBox* [4])> change;  // on a parent holding a, b, c; d is free
    const char* want;
  } cases[] = {
      {"append", [](IBox& p, IBox* b[4]) { p.Add(b[3]); }, "abcd"},
      {"last removed", [](IBox& p, IBox* b[4]) { delete p.Del(b[2]); p.Add(b[3]); }, "abd"},
      {"middle removed", [](IBox& p, IBox* b[4]) { delete p.Del(b[1]); p.Add(b[3]); }, "acd"},
      {"all removed", [](IBox& p, IBox* b[4]) { for (int i = 0; i < 3; ++i) delete p.Del(b[i]); p.Add(b[3]); }, "d"},
      {"list forgotten", [](IBox& p, IBox* b[4]) {
         for (IBox* c = p.RemoveChild(); c;) { IBox* n = c->Next(); delete c; c = n; }
         p.Add(b[3]); }, "d"},
      {"stranger not removed", [](IBox& p, IBox* b[4]) { EXPECT_EQ(p.Del(b[3]), nullptr); p.Add(b[3]); }, "abcd"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    IBox parent("moov");
    IBox* boxes[4] = {new IBox("aaaa"), new IBox("bbbb"), new IBox("cccc"), new IBox("dddd")};
    for (int i = 0; i < 3; ++i) parent.Add(boxes[i]);
    c.change(parent, boxes);
    EXPECT_EQ(Codes(parent), c.want);
    EXPECT_EQ(parent.Add(new IBox("eeee"))->Prev()->FCCString()[0], 'd');
  }
}

// A file of many small boxes costs time in proportion to its size: the old append walked every
// sibling, 46 s for 100,000 of them. The bound is loose enough for sanitizers and a busy machine.
TEST(HostileTree, ManySiblingsParseInLinearTime) {
  const size_t n = 100000;
  const auto start = std::chrono::steady_clock::now();
  {
    Tree t(ManyFree("moov", n));
    EXPECT_TRUE(t.ok);
    ASSERT_NE(t.at(), nullptr);
    size_t count = 0;
    for (const IBox* c = t.at()->Child(); c; c = c->Next()) ++count;
    EXPECT_EQ(count, n);
    EXPECT_EQ(t.root.Find("zzzz"), nullptr);
    std::ostringstream dump;
    t.root.Dump(dump);
    const std::string text = dump.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<long>(n + 2));
  }
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 10.0);
}

// A box that keeps a buffer takes it only for the bytes it holds: a "thum" took 200 KiB for each
// header, 2 GB for a file of 80 KB.
TEST(HostileTree, ManyThumbnailHeaders) {
  const long before = RssMiB("VmRSS:");
  Bytes file = Header64(16 + 8ull * 10000, "moov");
  for (int i = 0; i < 10000; ++i) Append(file, Header(8, "thum"));
  Tree thumbs(file);
  EXPECT_TRUE(thumbs.ok);
  EXPECT_LT(RssMiB("VmRSS:") - before, Bound(64));
}

// Nesting: the read stops at 64 levels, and trees deeper than any read makes are dumped and
// destroyed without a call a level.
TEST(HostileTree, DeepNesting) {
  for (const char* fcc : {"moov", "trak", "moof", "traf", "mfra"}) {
    SCOPED_TRACE(fcc);
    LogCapture log;
    Tree t(Nested(fcc, 5000));
    EXPECT_TRUE(t.ok);
    EXPECT_TRUE(log.Has(std::string(fcc) + ":depth>64")) << fcc;
    int depth = 0;
    for (const IBox* b = t.at(); b; b = b->Child()) ++depth;
    EXPECT_LE(depth, 66);
  }

  // A chain deeper than a call stack holds: the recursive destructor ran out of stack here.
  IBox* top = new IBox("moov");
  IBox* b = top;
  for (int i = 0; i < 300000; ++i) b = b->Add(new IBox(i % 2 ? "trak" : "mdia"));
  b->Add(new IBox("free"));
  b->Add(new IBox("skip"));
  std::ostringstream head;
  // A dump keeps depth first order and its indent; only the tail of the chain, whose lines are short.
  b->Parent()->Dump(head);
  EXPECT_EQ(head.str(), b->Parent()->FCCString() + std::string(" offset=0 size=0\n  ") + b->FCCString() +
                            " offset=0 size=0\n    free offset=0 size=0\n    skip offset=0 size=0\n");
  delete top;
}

namespace {

void Put32(Bytes& b, size_t at, uint32_t v) {
  for (int k = 0; k < 4; ++k) b[at + k] = static_cast<unsigned char>(v >> (24 - 8 * k));
}

// A box as its own class writes it, followed by bytes that its counts may claim; a table is written
// from a short list.
Bytes Seed(unsigned code) {
  std::unique_ptr<IBox> box(IBox::New(code));
  Bytes b;
  if (dynamic_cast<IStbl*>(box.get())) {
    b = WriteTable(box.release(), {Rec(0x40, 9, 10, 2, 1), Rec(0, 9, 10, 2), Rec(0x80, 7, 20, 1, 1)});
  } else {
    b = boxtest::kit::Written(*box);
  }
  if (b.size() < 8) b = Header(8, reinterpret_cast<const char*>(&code));
  Append(b, Fill(24, 0x41));
  Put32(b, 0, static_cast<uint32_t>(b.size()));
  return b;
}

// Damaged copies of one box: cut at every length, every bit of its head flipped, every word of its
// head forged, and its size told in 64 bits with forged values.
std::vector<Bytes> Damaged(const Bytes& seed) {
  std::vector<Bytes> out;
  // Past its head only the last cut: a "thum" is 200 KiB of reserve.
  for (size_t n = 0; n < seed.size(); n = n + 1 < std::min<size_t>(seed.size(), 512) ? n + 1 : std::max(n + 1, seed.size() - 1))
    out.emplace_back(seed.begin(), seed.begin() + static_cast<long>(n));
  for (size_t bit = 0; bit < std::min<size_t>(seed.size(), 40) * 8; ++bit) {
    out.push_back(seed);
    out.back()[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
  }
  for (size_t at = 0; at + 4 <= std::min<size_t>(seed.size(), 48); at += 4)
    for (uint32_t v : {0u, 1u, 7u, 0x7fffffffu, 0xffffffffu}) {
      out.push_back(seed);
      Put32(out.back(), at, v);
    }
  const unsigned long long size = seed.size() + 8;
  for (unsigned long long v : {0ull, 1ull, 7ull, 8ull, 16ull, size, size + 1, 0x7fffffffull, 0xffffffffull,
                     0x7fffffffffffffffull, 0xffffffffffffffffull}) {
    Bytes b = Header64(v, reinterpret_cast<const char*>(seed.data() + 4));
    b.insert(b.end(), seed.begin() + 8, seed.end());
    out.push_back(b);
  }
  return out;
}

}  // namespace

// Every box the factory knows, damaged every way, read on its own and as a table of a "stbl": each read
// ends with a result, its tree prints and goes away.
TEST(HostileBoxes, EveryCodeCutFlippedAndForged) {
  const auto start = std::chrono::steady_clock::now();
  LogCapture quiet(0);
  size_t reads = 0;
  for (unsigned code : BoxCodes()) {
    const Bytes seed = Seed(code);
    SCOPED_TRACE(std::string(reinterpret_cast<const char*>(&code), 4));
    const bool table = dynamic_cast<IStbl*>(std::unique_ptr<IBox>(IBox::New(code)).get()) != nullptr;
    for (const Bytes& bytes : Damaged(seed)) {
      std::vector<std::pair<Bytes, const char*>> files = {{bytes, ""}};
      if (table)
        files.emplace_back(StblOf({Table("stsc", {1, 1, 2, 1}), Table("stsz", {0, 3, 9, 9, 7}),
                                   Table("stco", {2, 0x40, 0x80}), bytes}),
                           "codec_fcc=1");
      for (const auto& f : files) {
        Tree t(f.first, AttrSet(f.second));
        std::ostringstream dump;
        t.root.Dump(dump);
        ++reads;
      }
    }
  }
  EXPECT_GT(reads, 10000u);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 60.0);
  EXPECT_LT(RssMiB(), Bound(256));
}
