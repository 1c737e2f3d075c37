// Damaged files played to the end through the demuxer element: a recording, files that ffmpeg makes
// and a file laid out by hand, each cut at 200 points and bit-flipped 200 times. Every run ends in
// "eos" or "error" (or Open refuses), the damage is said in a log line, nothing crashes or leaks, no run
// hangs (a watchdog ends the process naming the file), and memory stays bounded by the file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "stream/base/dbg/Log.h"
#include "tests/GeneratedMedia.h"
#include "tests/LogCapture.h"
#include "tests/MovieBytes.h"
#include "tests/PlayRig.h"
#include "tests/ProcessMemory.h"
#include "tests/ToolRun.h"

using namespace playtest;
using boxtest::Bound;
using boxtest::RssMiB;

namespace {

// A hang would hold the whole suite until ctest's own limit without saying which file: an alarm ends
// the process naming the run.
char g_playing[256];
extern "C" void OnAlarm(int) {
  static const char kHead[] = "watchdog: did not end in time: ";
  if (::write(2, kHead, sizeof kHead - 1) < 0 || ::write(2, g_playing, std::strlen(g_playing)) < 0) {
  }
  std::abort();
}
void Arm(const std::string& what) {
  std::snprintf(g_playing, sizeof g_playing, "%s\n", what.c_str());
  std::signal(SIGALRM, OnAlarm);
  ::alarm(20);
}

struct Outcome {
  std::string end;  // "eos", "error", "open failed"
  size_t packets = 0;
  int largest = 0;
  bool logged = false;  // a line at level E
};

// One damaged file through the element, memory in, to the end of its run.
Outcome Play(const movie::Bytes& bytes, const std::string& what) {
  Outcome o;
  LogCapture log(kiv::dbg::E);
  Arm(what);
  {
    Player p("mem://damaged", new CountingIO(bytes));
    int largest = 0;
    p.sink.check = [&largest](const Packet& pk) { largest = std::max(largest, pk.Size()); };
    if (!p.dmx->Open()) {
      o.end = "open failed";
    } else {
      EXPECT_TRUE(p.dmx->Start()) << what;
      const std::string m = p.WaitMessage(1, 30000);
      o.end = m.substr(0, m.find(':'));
      p.dmx->Stop();
      EXPECT_EQ(p.MessageCount(), 1u) << what;
    }
    o.packets = p.sink.Count();
    o.largest = largest;
  }
  ::alarm(0);
  o.logged = !log.Lines().empty();
  return o;
}

// 200 cuts spread over the file, the first at 0.
std::vector<size_t> Cuts(size_t size) {
  std::vector<size_t> out;
  for (size_t i = 0; i < 200; ++i) out.push_back(size * i / 200);
  return out;
}

// 200 copies with one to four bits flipped: half anywhere, half in the movie box, where the tables are.
std::vector<movie::Bytes> Flipped(const movie::Bytes& b, size_t moovAt, size_t moovEnd, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<movie::Bytes> out;
  for (int i = 0; i < 200; ++i) {
    movie::Bytes c = b;
    const size_t from = i % 2 ? moovAt : 0, to = i % 2 ? moovEnd : b.size();
    for (unsigned n = 1 + rng() % 4; n > 0; --n) c[from + rng() % (to - from)] ^= static_cast<unsigned char>(1u << rng() % 8);
    out.push_back(std::move(c));
  }
  return out;
}

// Where a top-level box lies: its start and end; the whole file when there is none.
std::pair<size_t, size_t> TopBox(const movie::Bytes& b, const std::string& code) {
  for (size_t at = 0; at + 8 <= b.size();) {
    const uint32_t size = uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 | b[at + 3];
    if (std::string(b.begin() + long(at) + 4, b.begin() + long(at) + 8) == code) return {at, at + size};
    if (size < 8) break;
    at += size;
  }
  return {0, b.size()};
}

movie::Bytes Slurp(const std::string& path) {
  const std::string s = ReadWhole(path);
  return movie::Bytes(s.begin(), s.end());
}

struct Base {
  std::string name;
  movie::Bytes bytes;
  std::vector<uint64_t> ends = {};  // where each sample ends, when known
};

std::vector<Base> Bases() {
  std::vector<Base> out;
  const std::string dir = boxtest::ProcessScratch() + "/demux_damage_" + std::to_string(::getpid());
  Shell("rm -rf " + dir + " && mkdir -p " + dir);
  // The bundled sample's first 60 pictures (and the sound the recorder keeps beside them), both formats.
  const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
  std::string video, pending;
  int pictures = 0;
  for (const std::string& u : generated::AnnexBUnits(ReadWhole(samples + "sample.h264"))) {
    pending += std::string("\0\0\0\1", 4) + u;
    const unsigned type = generated::UnitType(u);
    if (type != 1 && type != 5) continue;
    if (++pictures > 60) break;
    video += pending;
    pending.clear();
  }
  std::ofstream(dir + "/v.h264", std::ios::binary) << video;
  for (const char* ext : {"mp4", "mov"}) {
    const std::string path = dir + "/rec." + ext;
    const ToolResult r = RunTool("record -o " + path + " --video " + dir + "/v.h264 --audio " + samples + "sample.aac");
    EXPECT_EQ(r.status, 0) << r.err;
    out.push_back({std::string("recording ") + ext, Slurp(path)});
  }
  if (Shell("command -v ffmpeg")) {
    const std::string src = "-f lavfi -i testsrc=size=64x48:rate=10 -f lavfi -i sine=frequency=440:sample_rate=8000 "
                            "-t 2 -c:v libx264 -g 5 -c:a aac ";
    for (const std::string& flags : {std::string(""), std::string("-movflags +faststart ")}) {
      const std::string path = dir + "/ffmpeg" + (flags.empty() ? "" : "-faststart") + ".mp4";
      if (Shell("ffmpeg -nostdin -v error -y " + src + flags + path))
        out.push_back({"ffmpeg " + (flags.empty() ? std::string("mp4") : std::string("mp4, moov in front")),
                       Slurp(path)});
    }
  } else {
    std::printf("ffmpeg is not installed: only the recordings and the hand-made file are damaged\n");
  }
  movie::Layout s;
  s.tracks = {movie::Video(40, 3600, 10, 90000), movie::Audio(70)};
  s.moovFirst = true;
  const movie::Movie m = movie::Build(s);
  std::vector<uint64_t> ends;
  for (size_t t = 0; t < s.tracks.size(); ++t)
    for (size_t i = 0; i < s.tracks[t].samples.size(); ++i) ends.push_back(m.pos[t][i] + s.tracks[t].samples[i].size);
  out.push_back({"hand-made, moov in front", m.bytes, ends});
  Shell("rm -rf " + dir);
  return out;
}

}  // namespace

TEST(DemuxDamage, CutAndBitFlippedFilesEndCleanly) {
  const long long live = kiv::object_base::LiveObjects();
  for (const Base& base : Bases()) {
    SCOPED_TRACE(base.name);
    ASSERT_GT(base.bytes.size(), 1000u);
    const Outcome whole = Play(base.bytes, base.name);
    ASSERT_EQ(whole.end, "eos");
    ASSERT_GT(whole.packets, 20u);
    const auto moov = TopBox(base.bytes, "moov"), mdat = TopBox(base.bytes, "mdat");
    const auto check = [&](const movie::Bytes& b, const std::string& what, bool cut) {
      const Outcome o = Play(b, what);
      EXPECT_TRUE(o.end == "eos" || o.end == "error" || o.end == "open failed") << what << ": " << o.end;
      // Whatever a cut takes away is said, and so is a flip that fails the run.
      EXPECT_TRUE(o.logged || (!cut && o.end == "eos")) << what << ": no line";
      EXPECT_LE(static_cast<size_t>(o.largest), b.size()) << what;
      if (!cut) return;
      EXPECT_LE(o.packets, whole.packets) << what;
      // With the tables in front, a cut inside the media data plays up to the cut and ends in "error".
      if (moov.first < mdat.first && b.size() >= mdat.first + 8) {
        EXPECT_EQ(o.end, "error") << what;
        const auto frames = std::count_if(base.ends.begin(), base.ends.end(), [&](uint64_t e) { return e <= b.size(); });
        EXPECT_TRUE(base.ends.empty() || o.packets == static_cast<size_t>(frames))
            << what << ": " << o.packets << " packets, not the " << frames << " whole frames in front of the cut";
      }
    };
    for (size_t cut : Cuts(base.bytes.size()))
      check(movie::Bytes(base.bytes.begin(), base.bytes.begin() + long(cut)), base.name + " cut at " + std::to_string(cut), true);
    int i = 0;
    for (const movie::Bytes& b : Flipped(base.bytes, moov.first, moov.second, 7u + unsigned(base.bytes.size())))
      check(b, base.name + " flipped, copy " + std::to_string(i++), false);
  }
  EXPECT_EQ(kiv::object_base::LiveObjects(), live) << "every run gave back what it took";
  EXPECT_LT(RssMiB(), Bound(128));
}
