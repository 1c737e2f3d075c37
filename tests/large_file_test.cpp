// Recordings past the reach of 32-bit offsets: a stream of just over 4 GiB recorded both ways and read
// back by ffprobe, ffmpeg, the chunk offsets themselves and our own play; small files with 64-bit
// offsets through every command; and a recording that would pass the limit in 32-bit mode.
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IMovMuxer.h"
#include "tests/BoxBytes.h"
#include "tests/GeneratedMedia.h"
#include "tests/LargeFileUtil.h"
#include "tests/ToolRun.h"

namespace {

using largefile::BigMovie;
using largefile::ReadAt;
using muxtest::Bytes;

constexpr uint64_t k4GiB = 1ull << 32;

using generated::AnnexBUnits;
bool IsSlice(const std::string& u) { return generated::UnitType(u) == 1 || generated::UnitType(u) == 5; }

// The slice of a sample, found by walking its four-byte lengths from the sample's first byte. The
// units behind the first of a picture keep their start codes inside its length (a kept oddity of the
// recorder), so a unit ends at a start code too.
std::string SliceAt(const std::string& file, uint64_t pos, uint32_t size) {
  const Bytes b = ReadAt(file, pos, size < (1u << 16) ? size : (1u << 16));
  for (size_t at = 0; at + 5 <= b.size();) {
    const size_t n = muxtest::Be32(b, at);
    if (n == 0) break;
    std::string u(reinterpret_cast<const char*>(b.data() + at + 4), std::min(n, b.size() - at - 4));
    u = u.substr(0, u.find(std::string("\0\0\1", 3)));
    while (!u.empty() && u.back() == '\0') u.pop_back();
    if (IsSlice(u)) return u;
    at += 4 + n;
  }
  return "";
}

// The md5 of each picture ffmpeg decodes, from the key picture at or before `seconds` to the end.
std::vector<std::string> LastPictures(const std::string& file, const char* seconds) {
  std::istringstream out(Capture(std::string("ffmpeg -nostdin -v error -noaccurate_seek -ss ") + seconds + " -i '" + file +
                                 "' -map 0:v:0 -fps_mode passthrough -f framemd5 - 2>/dev/null"));
  std::vector<std::string> md5s;
  for (std::string line; std::getline(out, line);)
    if (!line.empty() && line[0] != '#') md5s.push_back(line.substr(line.find_last_of(", ") + 1));
  return md5s;
}

// Where the big files go: memory (/dev/shm) when the machine has that much to spare, else the scratch
// folder (much slower).
std::string BigDir(const std::string& scratch, uint64_t need) {
  std::istringstream info(ReadWhole("/proc/meminfo"));
  uint64_t availableKiB = 0;
  for (std::string key; info >> key;) {
    uint64_t v = 0;
    info >> v;
    if (key == "MemAvailable:") availableKiB = v;
    info.ignore(64, '\n');
  }
  struct statvfs v {};
  const uint64_t spare = 4ull << 30;
  if (availableKiB * 1024 > need + spare && ::statvfs("/dev/shm", &v) == 0 &&
      static_cast<uint64_t>(v.f_bavail) * v.f_frsize > need + spare) {
    const std::string d = "/dev/shm/boxweave_large" + std::to_string(::getpid());
    if (Shell("mkdir -p " + d)) return d;
  }
  return scratch;
}

// The packets `boxweave play --packets` gives back for the video: sizes in order.
std::vector<uint32_t> PlayedSizes(const std::string& file, int& status, const std::string& options = "",
                                  std::string* err = nullptr) {
  const ToolResult r = RunTool("play --packets '" + file + "'" + options);
  status = r.status;
  if (err) *err = r.err;
  std::vector<uint32_t> sizes;
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("packet|codec_type=video", 0) != 0) continue;
    const size_t at = line.find("|size=");
    if (at != std::string::npos) sizes.push_back(static_cast<uint32_t>(std::stoul(line.substr(at + 6))));
  }
  return sizes;
}

class LargeRecording : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    dir = generated::ScratchDir("large_", why);
    if (dir.empty()) GTEST_SKIP() << why;
    small = dir + "/small.h264";
    // One slice a picture and a key picture every ten, so that the last ones decode on their own.
    ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x120:rate=30 -frames:v 80 "
                      "-pix_fmt yuv420p -c:v libx264 -bf 0 -g 10 -f h264 " + small));
    for (const std::string& u : AnnexBUnits(ReadWhole(small)))
      if (IsSlice(u)) slices.push_back(u);
    ASSERT_EQ(slices.size(), 80u);
    frames = generated::FrameMd5s(small, "v");
    ASSERT_EQ(frames.size(), 80u);
  }
  void TearDown() override {
    if (!big.empty() && big != dir) Shell("rm -rf " + big);
    if (!dir.empty()) Shell("rm -rf " + dir);
  }

  std::string dir, big, small;
  std::vector<std::string> slices;  // of each picture
  std::vector<std::string> frames;  // md5 of each decoded picture
};

// The big stream: every picture but the last ten carries a filler unit (which decoders pass over), so
// that those ten lie behind the first 4 GiB of media data, the one key picture among them first.
// About 35 s of CPU and 9 GB of memory (or disk): the whole suite leaves it to scripts/bench.sh large.
TEST_F(LargeRecording, PastFourGiBBothWays) {
  if (!std::getenv("BOXWEAVE_LARGE")) GTEST_SKIP() << "set BOXWEAVE_LARGE=1 to record past 4 GiB (scripts/bench.sh large)";
  constexpr size_t kPlain = 10, kFilled = 70;
  const uint64_t filler = (k4GiB + (16u << 20)) / kFilled;
  big = BigDir(dir, 2 * k4GiB + (1u << 30));
  const std::string input = big + "/big.h264";
  {
    FILE* f = std::fopen(input.c_str(), "wb");
    ASSERT_TRUE(f);
    const std::string ones(1u << 20, '\xff');
    size_t picture = 0;
    for (const std::string& u : AnnexBUnits(ReadWhole(small))) {
      std::fwrite("\0\0\0\1", 1, 4, f);
      std::fwrite(u.data(), 1, u.size(), f);
      if (!IsSlice(u) || picture++ >= kFilled) continue;
      std::fwrite("\0\0\0\1\x0c", 1, 5, f);
      for (uint64_t left = filler; left > 0;) {
        const size_t n = left < ones.size() ? static_cast<size_t>(left) : ones.size();
        std::fwrite(ones.data(), 1, n, f);
        left -= n;
      }
      std::fputc(0x80, f);
    }
    ASSERT_EQ(std::fclose(f), 0);
    ASSERT_EQ(picture, kFilled + kPlain);
  }

  struct Case {
    const char* out;
    const char* options;
  } const cases[] = {{"big.mp4", ""}, {"big.mov", "--table-files"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.options);
    const std::string out = big + "/" + c.out;
    // No --64bit: the size of the input is what asks for it.
    const ToolResult r = RunTool(std::string("record -o ") + out + " --video " + input + " " + c.options);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("gets 64-bit offsets"), std::string::npos) << r.err;

    const BigMovie m(out);
    const auto* mdat = m.Top("mdat");
    ASSERT_TRUE(mdat && m.Top("moov"));
    EXPECT_EQ(mdat->header, 16u) << "the 64-bit size form";
    EXPECT_GT(mdat->offset + mdat->size, k4GiB);
    const largefile::TrackTables t = m.Track("vide");
    EXPECT_EQ(t.offsetTable, "co64");
    ASSERT_EQ(t.samplePos.size(), slices.size());
    for (size_t i = 0; i < slices.size(); ++i)
      EXPECT_TRUE(SliceAt(out, t.samplePos[i], t.sampleSize[i]) == slices[i]) << "sample " << i << " at " << t.samplePos[i];
    EXPECT_GT(t.samplePos[kFilled], k4GiB);
    EXPECT_EQ(t.samplePos.back() + t.sampleSize.back(), mdat->offset + mdat->size) << "the last sample ends mdat";

    EXPECT_EQ(Capture("ffprobe -v error -select_streams v -show_entries stream=nb_frames -of csv=p=0 " + out), "80\n");
    // From the key picture behind 4 GiB on: ffmpeg seeks there by the tables and decodes to the end.
    const std::vector<std::string> last = LastPictures(out, "2.35");
    EXPECT_EQ(last, std::vector<std::string>(frames.begin() + kFilled, frames.end()));
    int status = -1;
    EXPECT_EQ(PlayedSizes(out, status), t.sampleSize);
    EXPECT_EQ(status, 0);
    Shell("rm -f " + out);
  }
}

// ffmpeg's own small file laid out as ffmpeg lays out a large one: the "free" box in front of "mdat"
// and the mdat header become one 64-bit header (so no sample moves), and "stco" becomes "co64".
Bytes Co64Box(const Bytes& b, const muxtest::BoxAt& x) {
  static const std::string kContainers = " moov trak mdia minf stbl ";
  Bytes body;
  if (x.type == "stco") {
    body = muxtest::Slice(b, x.body(), 8);
    for (size_t i = 0, n = muxtest::Be32(b, x.body() + 4); i < n; ++i) {
      boxtest::Be32(body, 0);
      boxtest::Be32(body, muxtest::Be32(b, x.body() + 8 + i * 4));
    }
    return boxtest::Box("co64", body);
  }
  if (kContainers.find(" " + x.type + " ") == std::string::npos) return muxtest::Slice(b, x.offset, x.size);
  for (const muxtest::BoxAt& c : muxtest::Children(b, x)) boxtest::Append(body, Co64Box(b, c));
  return boxtest::Box(x.type.c_str(), body);
}
Bytes Co64File(const Bytes& b) {
  Bytes out;
  const auto top = muxtest::Boxes(b, 0, b.size());
  for (size_t i = 0; i < top.size(); ++i) {
    const muxtest::BoxAt& x = top[i];
    if (x.type == "free" && x.size == 8 && i + 1 < top.size() && top[i + 1].type == "mdat") continue;
    if (x.type == "mdat" && i > 0 && top[i - 1].type == "free" && top[i - 1].size == 8) {
      boxtest::Append(out, boxtest::Header64(x.size + 8, "mdat"));
      boxtest::Append(out, muxtest::Slice(b, x.body(), x.size - 8));
    } else {
      boxtest::Append(out, Co64Box(b, x));
    }
  }
  return out;
}

class SmallFiles64 : public LargeRecording {
 protected:
  void SetUp() override {
    LargeRecording::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    audio = dir + "/small.aac";
    ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000 -t 2.6 -c:a aac -f adts " +
                      audio));
  }
  // Recorded by us with the given options; the status and what was printed on the error stream.
  ToolResult Record(const std::string& out, const std::string& options, bool withAudio = true) {
    return RunTool("record -o " + out + " --video " + small + (withAudio ? " --audio " + audio : "") + " " + options);
  }
  std::string audio;
};

// Our files with 64-bit offsets hold the same samples as with 32-bit ones, 8 bytes further on (the
// longer mdat header), and play, info and ffmpeg read them alike.
TEST_F(SmallFiles64, EveryCommandReadsThem) {
  const char* const cases[][2] = {{"a.mp4", ""}, {"d.mov", "--table-files"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c[0]) + " " + c[1]);
    const std::string out64 = dir + "/64" + c[0], out32 = dir + "/32" + c[0];
    ASSERT_EQ(Record(out64, std::string("--64bit ") + c[1]).status, 0);
    ASSERT_EQ(Record(out32, c[1]).status, 0);
    const BigMovie m64(out64), m32(out32);
    ASSERT_TRUE(m64.Top("mdat") && m32.Top("mdat"));
    EXPECT_EQ(m64.Top("mdat")->header, 16u);
    EXPECT_EQ(m32.Top("mdat")->header, 8u);
    for (const char* handler : {"vide", "soun"}) {
      const largefile::TrackTables t64 = m64.Track(handler), t32 = m32.Track(handler);
      EXPECT_EQ(t64.offsetTable, "co64") << handler;
      EXPECT_EQ(t32.offsetTable, "stco") << handler;
      ASSERT_FALSE(t32.samplePos.empty()) << handler;
      ASSERT_EQ(t64.samplePos.size(), t32.samplePos.size()) << handler;
      EXPECT_EQ(t64.sampleSize, t32.sampleSize) << handler;
      for (size_t i = 0; i < t32.samplePos.size(); ++i) EXPECT_EQ(t64.samplePos[i], t32.samplePos[i] + 8) << handler << i;
    }
    const largefile::TrackTables v = m64.Track("vide");
    for (size_t i = 0; i < v.samplePos.size() && i < slices.size(); ++i)
      EXPECT_TRUE(SliceAt(out64, v.samplePos[i], v.sampleSize[i]) == slices[i]) << "sample " << i;

    const generated::Decoded d64 = generated::Decode(dir, out64, true, true, false);
    const generated::Decoded d32 = generated::Decode(dir, out32, true, true, false);
    EXPECT_EQ(d64.status, 0) << d64.errors;
    EXPECT_FALSE(d64.video.empty());
    EXPECT_EQ(d64.video, d32.video);
    EXPECT_EQ(d64.audio, d32.audio);
    int status = -1;
    EXPECT_EQ(PlayedSizes(out64, status), v.sampleSize);
    EXPECT_EQ(status, 0);
    const ToolResult info = RunTool("info --summary " + out64);
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_NE(info.out.find("avc1 160x120, 80 samples"), std::string::npos) << info.out;
    Shell("rm -f " + out64 + " " + out32);
  }
}

// ffmpeg writes co64 and a 64-bit mdat only past 4 GiB; its small file laid out the same way stands in.
TEST_F(SmallFiles64, FfmpegLayoutReads) {
  const std::string ff = dir + "/ff.mp4", co64 = dir + "/ff64.mp4", again = dir + "/again.mov", ffAgain = dir + "/ffagain.mov";
  ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -i " + small + " -i " + audio + " -c copy " + ff));
  const Bytes laid = Co64File(muxtest::ReadFile(ff));
  std::ofstream(co64, std::ios::binary).write(reinterpret_cast<const char*>(laid.data()), static_cast<std::streamsize>(laid.size()));
  const largefile::TrackTables v = BigMovie(co64).Track("vide");
  ASSERT_EQ(v.offsetTable, "co64");
  ASSERT_EQ(v.samplePos.size(), slices.size());
  for (const char* way : {"", " --tables-on-file --switch-size 64"}) {
    int status = -1;
    EXPECT_EQ(PlayedSizes(co64, status, way), v.sampleSize) << way;
    EXPECT_EQ(status, 0) << way;
  }
  ASSERT_EQ(RunTool("remux " + co64 + " " + again).status, 0);
  ASSERT_EQ(RunTool("remux " + ff + " " + ffAgain).status, 0);
  const std::vector<std::string> pictures = generated::FrameMd5s(again, "v");
  EXPECT_GE(pictures.size(), 70u);  // from the second key picture on
  EXPECT_EQ(pictures, generated::FrameMd5s(ffAgain, "v"));
}

// A chunk moved just below the largest file position, its sample 2 MiB long: past the file, an error
// both ways of reading the tables (the check against the file's size once overflowed there).
TEST_F(SmallFiles64, AChunkNearTheLargestPositionIsAnErrorBothWays) {
  const std::string out = dir + "/far.mp4";
  ASSERT_EQ(Record(out, "--64bit", false).status, 0);
  const largefile::TrackTables t = BigMovie(out).Track("vide");
  ASSERT_EQ(t.offsetTable, "co64");
  ASSERT_GT(t.samplePos.size(), 20u);
  std::string b = ReadWhole(out);
  for (int i = 0; i < 8; ++i) b[t.offsetsAt + 8 * 20 + i] = static_cast<char>(0x7fffffffffffff00ull >> (56 - 8 * i));
  for (int i = 0; i < 4; ++i) b[t.sizesAt + 4 * 20 + i] = static_cast<char>((2u << 20) >> (24 - 8 * i));
  std::ofstream(out, std::ios::binary) << b;
  for (const char* way : {"", " --tables-on-file --switch-size 1"}) {
    int status = -1;
    std::string err;
    EXPECT_EQ(PlayedSizes(out, status, way, &err).size(), 20u) << way;
    EXPECT_EQ(status, 1) << way;
    EXPECT_NE(err.find(out + ": reading stopped with an error after 20 packets"), std::string::npos) << err;
  }
}

// A host that guessed 32-bit offsets wrongly: the limit (here a small one standing in for 4 GiB)
// stops the recording before any offset or size passes it; the file is whole up to there and the
// status tells the failure. With --64bit the same limit does not apply.
TEST_F(SmallFiles64, ThirtyTwoBitModeRefusesToWrap) {
  const std::string whole = dir + "/whole.mp4";
  ASSERT_EQ(Record(whole, "").status, 0);
  const BigMovie w(whole);
  ASSERT_TRUE(w.Top("mdat"));
  const uint64_t limit = w.Top("mdat")->offset + w.Top("mdat")->size / 2;
  const std::string env = "BOXWEAVE_LIMIT32=" + std::to_string(limit) + " ";
  const std::string out = dir + "/cut.mov";
  const ToolResult r = RunTool("record -o " + out + " --video " + small + " --audio " + audio, env);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("needs 64-bit offsets (--64bit)"), std::string::npos) << r.err;
  const BigMovie m(out);
  ASSERT_TRUE(m.Top("mdat") && m.Top("moov"));
  EXPECT_EQ(m.Top("mdat")->header, 8u);
  EXPECT_LE(m.Top("mdat")->offset + m.Top("mdat")->size, limit);
  const largefile::TrackTables v = m.Track("vide");
  EXPECT_GT(v.samplePos.size(), 10u);
  EXPECT_LT(v.samplePos.size(), slices.size());
  for (size_t i = 0; i < v.samplePos.size(); ++i) {
    EXPECT_LE(v.samplePos[i] + v.sampleSize[i], limit);
    EXPECT_TRUE(SliceAt(out, v.samplePos[i], v.sampleSize[i]) == slices[i]) << i;
  }
  EXPECT_EQ(Count(Probe(out)["video"], "nb_read_frames"), static_cast<long long>(v.samplePos.size()));

  const ToolResult r64 = RunTool("record --64bit -o " + out + " --video " + small + " --audio " + audio, env);
  EXPECT_EQ(r64.status, 0) << r64.err;
  EXPECT_EQ(BigMovie(out).Track("vide").samplePos.size(), slices.size());
  Shell("rm -f " + out);
}

// A track that holds every payload back until the end of the file, as grouping tracks hold a chunk.
class HoldingTrack : public muxtest::TestTrack {
 public:
  bool AddPacket(kiv::stream::Packet& packet, kiv::base::IO&, unsigned long long) override {
    if (packet.media != _media) return false;
    held += static_cast<size_t>(packet.Size());
    return true;
  }
  bool CleanFifoData(kiv::base::IO& io, unsigned long long) override {
    const Bytes zeros(held);
    io.Write(zeros.data(), static_cast<long long>(zeros.size()));
    if (_mdat) _mdat->RealSize(_mdat->RealSize() + held);
    return true;
  }
  size_t held = 0;
};

// The engine's own check, with a limit of 1000 bytes standing in for 4 GiB: 32-bit mode takes no
// packet that would end past it (less the room kept for held-back data, an eighth of it), and writes
// no moov when held-back data passed it all the same; 64-bit mode takes everything.
TEST(LargeFileEngine, ThirtyTwoBitLimit) {
  muxtest::RegisterTestTrack();
  using P = kiv::base::TProperty<HoldingTrack>;
  kiv::base::ReflectClass<HoldingTrack>("MuxTestHold-mov-stream-testh", {P::Member("frameRate", &HoldingTrack::frameRate)},
                                        true, "test", 1, "test", "test");
  struct Case {
    const char* media;
    bool use64;
    int taken;        // packets of 100 bytes taken out of 12
    bool closes;      // Close writes moov
  } const cases[] = {
      {"codec=video/testv;scale=90000;width=64;height=48", false, 8, true},   // 8 + 8 * 100 + 100 + 125 > 1000
      {"codec=video/testv;scale=90000;width=64;height=48", true, 12, true},
      {"codec=video/testh;scale=90000;width=64;height=48", false, 12, false},  // nothing written until Close
      {"codec=video/testh;scale=90000;width=64;height=48", true, 12, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.media) + (c.use64 ? " 64-bit" : " 32-bit"));
    kiv::plugin::mov::IMovMuxer eng;
    kiv::base::IOBuffer io;
    kiv::stream::IMedia* media = kiv::stream::IMedia::New(c.media);
    ASSERT_TRUE(media);
    eng.LargeFile(c.use64, 1000);
    std::vector<kiv::stream::IMedia*> list{media};
    kiv::base::AttrSet ap;
    ASSERT_TRUE(eng.Open(io, list, ap));
    int taken = 0;
    for (int i = 0; i < 12; ++i) {
      kiv::stream::Packet* p = muxtest::NewPacket(media, 100, static_cast<unsigned char>(i), i * 40, 40);
      taken += eng.Process(io, *p);
      kiv::base::Release(p);
    }
    EXPECT_EQ(taken, c.taken);
    EXPECT_EQ(eng.Close(io), c.closes);
    EXPECT_EQ(eng.PastLimit(), c.taken < 12 || !c.closes);
    const Bytes& b = io.Bytes();
    const auto top = muxtest::Boxes(b, 0, b.size());
    std::string types;
    for (const auto& x : top) types += x.type + " ";
    EXPECT_EQ(types, c.closes ? "ftyp mdat moov " : "ftyp mdat ");
    ASSERT_GE(top.size(), 2u);
    EXPECT_EQ(top[1].header, c.use64 ? 16u : 8u);
    if (c.closes && !c.use64) {
      EXPECT_LE(top[1].end(), 1000u);
    }
    kiv::base::Release(media);
  }
}

}  // namespace
