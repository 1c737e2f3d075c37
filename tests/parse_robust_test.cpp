// Files written by another tool go through the box parser whole, cut short and with flipped bits.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "tests/LogCapture.h"
#include "tests/ToolRun.h"

using kiv::base::AttrSet;
using kiv::base::IOBuffer;
using kiv::plugin::mov::IBox;

namespace {

// File names and ffmpeg output options.
const struct {
  const char *name, *args;
} kSamples[] = {
    {"plain.mp4", "-c:v libx264 -c:a aac"},
    {"plain.mov", "-c:v libx264 -c:a aac"},
    {"frag.mp4", "-c:v libx264 -c:a aac -movflags +frag_keyframe+empty_moov+default_base_moof -frag_duration 200000"},
    {"hevc.mp4", "-c:v libx265 -x265-params log-level=none -tag:v hvc1 -an"},
};

class ForeignFiles : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = boxtest::ProcessScratch() + "/foreign" + std::to_string(::getpid());
    Shell("mkdir -p " + dir_);
    for (const auto& s : kSamples) {
      const std::string cmd = "ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc=size=96x64:rate=25 -f lavfi "
                              "-i sine=frequency=440:sample_rate=48000 -t 1.2 -pix_fmt yuv420p " +
                              std::string(s.args) + " -shortest " + dir_ + "/" + s.name;
      files_.push_back(Shell(cmd) ? ReadWhole(dir_ + "/" + s.name) : std::string());
    }
  }
  static void TearDownTestSuite() { Shell("rm -rf " + dir_); }
  // The codes of the top-level boxes read; false when the parse failed.
  static bool parse(const std::string& bytes, std::vector<std::string>* top = nullptr) {
    IOBuffer io;
    io.Write(bytes.data(), static_cast<long long>(bytes.size()));
    io.Seek(0, kiv::Position::front);
    std::unique_ptr<IBox> root(IBox::New("root", 0));
    AttrSet ap;
    const bool ok = root->Parse(io, ap, true);
    for (IBox* c = root->Child(); c && top; c = c->Next()) top->push_back(c->FCCString());
    return ok;
  }
  const std::string& file(size_t i) {
    if (files_[i].empty()) ADD_FAILURE() << "ffmpeg could not make " << kSamples[i].name;
    return files_[i];
  }
  static std::string dir_;
  static std::vector<std::string> files_;
};
std::string ForeignFiles::dir_;
std::vector<std::string> ForeignFiles::files_;

TEST_F(ForeignFiles, CutAndBitFlippedCopiesNeverCrashNorLeak) {
  std::mt19937 rng(20261121);
  const long long objectsBefore = kiv::object_base::LiveObjects();
  for (size_t i = 0; i < files_.size(); ++i) {
    const std::string& bytes = file(i);
    if (bytes.empty()) continue;
    SCOPED_TRACE(kSamples[i].name);
    LogCapture quiet(kiv::dbg::E);
    std::vector<std::string> whole;
    EXPECT_TRUE(parse(bytes, &whole));
    EXPECT_NE(std::find(whole.begin(), whole.end(), "moov"), whole.end());
    // A cut exactly behind the first box leaves a clean file of one box.
    const size_t ftypSize = (static_cast<unsigned char>(bytes[2]) << 8) | static_cast<unsigned char>(bytes[3]);
    std::vector<std::string> top;
    EXPECT_TRUE(parse(bytes.substr(0, ftypSize), &top));
    EXPECT_EQ(top, std::vector<std::string>{"ftyp"});
    const size_t step = bytes.size() / 150 + 1;
    for (size_t cut = 1; cut < bytes.size(); cut += step) parse(bytes.substr(0, cut));
    for (size_t cut = bytes.size() - 64; cut < bytes.size(); ++cut) parse(bytes.substr(0, cut));
    // Flips in the headers and tables hurt most: most go to the first kilobyte and the moov end.
    for (int round = 0; round < 300; ++round) {
      std::string copy = bytes;
      for (int k = 1 + static_cast<int>(rng() % 8); k > 0; --k) {
        const unsigned where = rng() % 3;
        const size_t at = where == 0   ? rng() % std::min<size_t>(copy.size(), 1024)
                          : where == 1 ? copy.size() - 1 - rng() % std::min<size_t>(copy.size(), 4096)
                                       : rng() % copy.size();
        copy[at] = static_cast<char>(copy[at] ^ (1u << (rng() % 8)));
      }
      parse(copy);
    }
  }
  EXPECT_EQ(kiv::object_base::LiveObjects(), objectsBefore) << "every box of a damaged tree is freed";
}

}  // namespace
