// The host's elementary-stream readers against streams that ffmpeg makes, with ffprobe as the judge.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "stream/base/Helpers.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "tests/LogCapture.h"
#include "tests/io_test_util.h"
#include "tools/AdtsReader.h"
#include "tools/H264Reader.h"

using boxweave::AdtsDescription;
using boxweave::AdtsFrame;
using boxweave::AdtsReader;
using boxweave::H264AccessUnit;
using boxweave::H264Description;
using boxweave::H264Reader;
using Bytes = std::vector<unsigned char>;

namespace {

bool haveFfmpeg() {
  static const bool have = std::system("ffmpeg -version >/dev/null 2>&1") == 0 &&
                           std::system("ffprobe -version >/dev/null 2>&1") == 0;
  return have;
}
#define NEED_FFMPEG() \
  if (!haveFfmpeg()) GTEST_SKIP() << "ffmpeg and ffprobe are needed (scripts/deps.sh installs them)"

std::map<std::string, std::string> ffprobe(const std::string& path) {
  const std::string cmd = "ffprobe -v error -select_streams 0 -count_frames -count_packets -show_entries "
                          "stream=width,height,profile,level,pix_fmt,nb_read_frames,nb_read_packets,"
                          "sample_rate,channels -of default=nw=1 '" + path + "' 2>/dev/null";
  std::map<std::string, std::string> out;
  FILE* p = ::popen(cmd.c_str(), "r");
  if (!p) return out;
  char line[512];
  while (std::fgets(line, sizeof line, p)) {
    std::string s(line);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    const size_t eq = s.find('=');
    if (eq != std::string::npos) out[s.substr(0, eq)] = s.substr(eq + 1);
  }
  ::pclose(p);
  return out;
}
long long num(const std::map<std::string, std::string>& m, const char* key) {
  auto it = m.find(key);
  return it == m.end() ? -1 : std::atoll(it->second.c_str());
}

bool ffmpeg(const std::string& args) {
  return std::system(("ffmpeg -hide_banner -loglevel error -y " + args + " >/dev/null 2>&1").c_str()) == 0;
}
// testsrc at 30 fps through libx264 into a raw Annex-B file.
std::string makeH264(const iotest::TempDir& t, const std::string& name, const std::string& size, int frames,
                     const std::string& opts) {
  const std::string path = t.file(name);
  const bool ok = ffmpeg("-f lavfi -i testsrc=size=" + size + ":rate=30 -frames:v " + std::to_string(frames) +
                         " -c:v libx264 -sc_threshold 0 " + opts + " -f h264 " + path);
  return ok ? path : "";
}
std::string makeAac(const iotest::TempDir& t, const std::string& name, int rate, int channels, double seconds) {
  const std::string path = t.file(name);
  const bool ok = ffmpeg("-f lavfi -i sine=frequency=440:sample_rate=" + std::to_string(rate) +
                         ":duration=" + std::to_string(seconds) + " -ac " + std::to_string(channels) +
                         " -c:a aac -b:a 64k -f adts " + path);
  return ok ? path : "";
}

void writeAll(const std::string& path, const Bytes& b) {
  std::ofstream f(path, std::ios::binary);
  f.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

// The NAL units of an Annex-B byte string, as the test sees them: split at 00 00 01, zeros trimmed.
std::vector<Bytes> splitNals(const Bytes& s) {
  std::vector<size_t> starts;
  for (size_t i = 2; i < s.size(); ++i)
    if (s[i] == 1 && s[i - 1] == 0 && s[i - 2] == 0) starts.push_back(i + 1);
  std::vector<Bytes> out;
  for (size_t k = 0; k < starts.size(); ++k) {
    size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : s.size();
    while (end > starts[k] && s[end - 1] == 0) --end;
    out.emplace_back(s.begin() + starts[k], s.begin() + end);
  }
  return out;
}
Bytes joinNals(const std::vector<Bytes>& nals, int startCodeBytes) {
  Bytes out;
  for (const Bytes& n : nals) {
    out.insert(out.end(), static_cast<size_t>(startCodeBytes - 1), 0);
    out.push_back(1);
    out.insert(out.end(), n.begin(), n.end());
  }
  return out;
}

struct Unit {
  Bytes bytes;
  bool key;
  unsigned types;
  int slices;
  size_t head;
};
std::vector<Unit> readUnits(const std::string& path, size_t block = H264Reader::kBlock, std::string* error = nullptr) {
  H264Reader r(block);
  std::vector<Unit> out;
  if (r.Open(path)) {
    H264AccessUnit au;
    while (r.Next(au)) {
      EXPECT_EQ(au.index, static_cast<long long>(out.size()));
      out.push_back({Bytes(au.data, au.data + au.size), au.key, au.sliceTypes, au.slices, au.head});
    }
  }
  if (error) *error = r.Error();
  return out;
}

// Every start code in the bytes has four bytes.
bool onlyLongStartCodes(const Bytes& b) {
  for (size_t i = 2; i < b.size(); ++i)
    if (b[i] == 1 && b[i - 1] == 0 && b[i - 2] == 0 && (i < 3 || b[i - 3] != 0)) return false;
  return b.size() >= 4 && b[0] == 0 && b[1] == 0 && b[2] == 0 && b[3] == 1;
}

std::string describeError(const std::string& path) {
  H264Description d;
  std::string error;
  EXPECT_FALSE(boxweave::DescribeH264(path, d, error)) << path;
  return error;
}

unsigned profileIdcOf(const std::string& name) {
  if (name == "Baseline" || name == "Constrained Baseline") return 66;
  if (name == "Main") return 77;
  if (name == "High") return 100;
  if (name == "High 10") return 110;
  if (name == "High 4:2:2" || name == "High 4:2:2 Intra") return 122;
  if (name == "High 4:4:4 Predictive") return 244;
  return 0;
}

// The stream's description against ffprobe's view of the same file.
void expectLikeFfprobe(const H264Description& d, const std::string& path) {
  const auto p = ffprobe(path);
  EXPECT_EQ(d.pictures, num(p, "nb_read_frames")) << path;
  EXPECT_EQ(static_cast<long long>(d.sps.width), num(p, "width")) << path;
  EXPECT_EQ(static_cast<long long>(d.sps.height), num(p, "height")) << path;
  EXPECT_EQ(static_cast<long long>(d.sps.level_idc), num(p, "level")) << path;
  EXPECT_EQ(d.sps.profile_idc, profileIdcOf(p.count("profile") ? p.at("profile") : "")) << path;
}

}  // namespace

// ---- H.264

TEST(EsH264Reader, DescribesStreamsAsFfprobeSeesThem) {
  NEED_FFMPEG();
  iotest::TempDir t;
  struct Case {
    const char* name;
    const char* opts;
    bool hasB, allIntra;
    long long gop;
  } cases[] = {
      {"b.h264", "-pix_fmt yuv420p -g 30 -bf 2", true, false, 30},
      {"p.h264", "-pix_fmt yuv420p -g 30 -bf 0", false, false, 30},
      {"i.h264", "-pix_fmt yuv420p -g 1", false, true, 1},
      {"i2.h264", "-pix_fmt yuv420p -x264-params keyint=1", false, true, 1},
  };
  for (const Case& c : cases) {
    const std::string path = makeH264(t, c.name, "320x240", 65, c.opts);
    ASSERT_FALSE(path.empty()) << c.name;
    H264Description d;
    std::string error;
    ASSERT_TRUE(boxweave::DescribeH264(path, d, error)) << error;
    expectLikeFfprobe(d, path);
    EXPECT_EQ(d.hasB, c.hasB) << c.name;
    EXPECT_EQ(d.allIntra, c.allIntra) << c.name;
    EXPECT_EQ(d.gop, c.gop) << c.name;
    EXPECT_EQ(d.keys, c.allIntra ? 65 : 3) << c.name;
    EXPECT_EQ(d.firstKey, 0);
    EXPECT_EQ(d.maxSlices, 1);
    EXPECT_FALSE(d.interlace());
    EXPECT_TRUE(boxweave::H264Warnings(d).empty()) << c.name;
    // The access units read one by one add up to the description, in four-byte start-code form.
    const std::vector<Unit> units = readUnits(path);
    ASSERT_EQ(static_cast<long long>(units.size()), d.pictures);
    unsigned long long bytes = 0;
    for (size_t i = 0; i < units.size(); ++i) {
      bytes += units[i].bytes.size();
      EXPECT_TRUE(onlyLongStartCodes(units[i].bytes)) << c.name << " unit " << i;
      EXPECT_EQ(units[i].key, c.allIntra || i % 30 == 0) << c.name << " unit " << i;
      EXPECT_EQ(units[i].slices, 1);
    }
    EXPECT_EQ(bytes, d.bytes);
    // Parameter sets stand in the first unit, in front of its slice.
    const std::vector<Bytes> first = splitNals(units[0].bytes);
    ASSERT_GE(first.size(), 3u);
    EXPECT_EQ(first[0], d.spsBytes);
    EXPECT_EQ(first[1], d.ppsBytes);
    size_t head = 0;
    for (size_t k = 0; k < first.size() && (first[k][0] & 0x1f) != 5; ++k) head += 4 + first[k].size();
    EXPECT_EQ(units[0].head, head);
    EXPECT_EQ(d.maxHead, head) << "the encoder's banner SEI stands in the first picture only";
  }
}

TEST(EsH264Reader, SeveralSlicesMakeOnePictureAndAWarning) {
  NEED_FFMPEG();
  iotest::TempDir t;
  const std::string path = makeH264(t, "s.h264", "320x240", 20, "-pix_fmt yuv420p -g 10 -x264-params slices=4");
  ASSERT_FALSE(path.empty());
  H264Description d;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeH264(path, d, error)) << error;
  expectLikeFfprobe(d, path);
  EXPECT_EQ(d.maxSlices, 4);
  EXPECT_EQ(d.gop, 10);
  const auto warnings = boxweave::H264Warnings(d);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("4 slices"), std::string::npos) << warnings[0];
  for (const Unit& u : readUnits(path)) {
    EXPECT_EQ(u.slices, 4);
    EXPECT_TRUE(onlyLongStartCodes(u.bytes));
  }
}

TEST(EsH264Reader, StartCodeFormsAndBlockSizesGiveTheSameUnits) {
  NEED_FFMPEG();
  iotest::TempDir t;
  const std::string path = makeH264(t, "o.h264", "160x120", 12, "-pix_fmt yuv420p -g 6 -x264-params slices=2");
  ASSERT_FALSE(path.empty());
  const std::vector<Unit> ref = readUnits(path);
  ASSERT_EQ(ref.size(), 12u);
  const std::vector<Bytes> nals = splitNals(iotest::readAll(path));

  // All three-byte, mixed, and with zero padding between units and in front of the stream.
  Bytes mixed, padded(5, 0);
  for (size_t i = 0; i < nals.size(); ++i) {
    const Bytes one = joinNals({nals[i]}, i % 2 ? 3 : 4);
    mixed.insert(mixed.end(), one.begin(), one.end());
    const Bytes pad = joinNals({nals[i]}, 3 + static_cast<int>(i % 4));
    padded.insert(padded.end(), pad.begin(), pad.end());
  }
  padded.insert(padded.end(), 7, 0);
  const std::pair<const char*, Bytes> variants[] = {
      {"short.h264", joinNals(nals, 3)}, {"mixed.h264", mixed}, {"padded.h264", padded}};
  for (const auto& v : variants) {
    writeAll(t.file(v.first), v.second);
    const std::vector<Unit> got = readUnits(t.file(v.first));
    ASSERT_EQ(got.size(), ref.size()) << v.first;
    for (size_t i = 0; i < ref.size(); ++i) {
      EXPECT_EQ(got[i].bytes, ref[i].bytes) << v.first << " unit " << i;
      EXPECT_EQ(got[i].key, ref[i].key);
      EXPECT_EQ(got[i].types, ref[i].types);
    }
  }
  // Start codes and units that straddle reads.
  for (size_t block : {1u, 2u, 3u, 5u, 4093u}) {
    const std::vector<Unit> got = readUnits(t.file("short.h264"), block);
    ASSERT_EQ(got.size(), ref.size()) << block;
    for (size_t i = 0; i < ref.size(); ++i) EXPECT_EQ(got[i].bytes, ref[i].bytes) << block << " unit " << i;
  }
}

TEST(EsH264Reader, CroppingChromaDepthAndInterlace) {
  NEED_FFMPEG();
  iotest::TempDir t;
  H264Description d;
  std::string error;
  const std::string odd = makeH264(t, "odd.h264", "100x60", 5, "-pix_fmt yuv420p");
  ASSERT_FALSE(odd.empty());
  ASSERT_TRUE(boxweave::DescribeH264(odd, d, error)) << error;
  expectLikeFfprobe(d, odd);
  EXPECT_EQ(d.sps.width, 100u);
  EXPECT_EQ(d.sps.height, 60u);

  const std::string field = makeH264(t, "field.h264", "320x240", 6, "-pix_fmt yuv420p -flags +ildct+ilme");
  ASSERT_FALSE(field.empty());
  ASSERT_TRUE(boxweave::DescribeH264(field, d, error)) << error;
  EXPECT_TRUE(d.interlace());
  EXPECT_EQ(d.sps.height, 240u);
  expectLikeFfprobe(d, field);
  kiv::stream::IMedia* m = boxweave::NewH264Media(d, kiv::base::Fraction(30, 1));
  ASSERT_NE(m, nullptr);
  int height = 0;
  bool interlace = false;
  EXPECT_TRUE(m->Get("height", height) && m->Get("interlace", interlace));
  EXPECT_TRUE(interlace);
  EXPECT_EQ(height, 120) << "the track doubles the height of an interlaced stream";
  m->Release();

  // libx264 builds without high bit depth refuse this: then only the 8-bit cases are checked.
  const std::string deep = makeH264(t, "deep.h264", "64x48", 3, "-pix_fmt yuv422p10le");
  if (deep.empty()) {
    std::printf("libx264 without 10-bit 4:2:2, case left out\n");
    return;
  }
  ASSERT_TRUE(boxweave::DescribeH264(deep, d, error)) << error;
  expectLikeFfprobe(d, deep);
  EXPECT_EQ(d.sps.chroma_format_idc, 2u);
  EXPECT_EQ(d.sps.bit_depth_luma_minus8, 2u);
  EXPECT_EQ(d.sps.bit_depth_chroma_minus8, 2u);
  EXPECT_EQ(ffprobe(deep)["pix_fmt"], "yuv422p10le");
}

TEST(EsH264Reader, RejectsWhatIsNotAnAnnexBStream) {
  NEED_FFMPEG();
  iotest::TempDir t;
  LogCapture log;
  EXPECT_NE(describeError(t.file("missing.h264")).find("cannot open"), std::string::npos);
  writeAll(t.file("empty.h264"), {});
  EXPECT_NE(describeError(t.file("empty.h264")).find("empty file"), std::string::npos);
  const std::string text = "this is plain text, not video\n";
  writeAll(t.file("text.h264"), Bytes(text.begin(), text.end()));
  EXPECT_NE(describeError(t.file("text.h264")).find("no start code"), std::string::npos);
  ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc=size=64x48:rate=30 -frames:v 2 -c:v libx264 -f mp4 " + t.file("m.mp4")));
  EXPECT_NE(describeError(t.file("m.mp4")).find("not an H.264 Annex-B stream"), std::string::npos);
  ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc=size=64x48:rate=30 -frames:v 2 -c:v mpeg2video -f mpeg2video " +
                     t.file("m2.h264")));
  EXPECT_NE(describeError(t.file("m2.h264")).find("not an H.264 stream"), std::string::npos);
  EXPECT_TRUE(log.Has("not an H.264 stream")) << "failures are logged too";

  // Streams that lack a parameter set, or whose SPS is damaged.
  const std::string path = makeH264(t, "ok.h264", "64x48", 4, "-pix_fmt yuv420p");
  ASSERT_FALSE(path.empty());
  const std::vector<Bytes> nals = splitNals(iotest::readAll(path));
  for (int drop : {7, 8}) {
    std::vector<Bytes> kept;
    for (const Bytes& n : nals)
      if ((n[0] & 0x1f) != drop) kept.push_back(n);
    const std::string p = t.file("drop" + std::to_string(drop) + ".h264");
    writeAll(p, joinNals(kept, 4));
    EXPECT_NE(describeError(p).find(drop == 7 ? "no SPS" : "no PPS"), std::string::npos);
  }
  std::vector<Bytes> broken = nals;
  for (Bytes& n : broken)
    if ((n[0] & 0x1f) == 7) n = {0x67, 0x64, 0x00, 0x0d, 0x80};
  writeAll(t.file("badsps.h264"), joinNals(broken, 4));
  EXPECT_NE(describeError(t.file("badsps.h264")).find("unparsable SPS"), std::string::npos);

  EXPECT_TRUE(H264Reader::HandlesPath("a/b.H264"));
  EXPECT_TRUE(H264Reader::HandlesPath("x.264"));
  EXPECT_FALSE(H264Reader::HandlesPath("x.aac"));
  EXPECT_FALSE(H264Reader::HandlesPath("h264"));
}

TEST(EsH264Packets, TimesKeysAndMediaAttributes) {
  NEED_FFMPEG();
  iotest::TempDir t;
  const std::string path = makeH264(t, "b.h264", "320x240", 40, "-pix_fmt yuv420p -g 15 -bf 2");
  ASSERT_FALSE(path.empty());
  H264Description d;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeH264(path, d, error)) << error;
  const kiv::base::Fraction ntsc(30000, 1001);
  kiv::stream::IMedia* m = boxweave::NewH264Media(d, ntsc);
  ASSERT_NE(m, nullptr);

  int width = 0, height = 0;
  bool interlace = true;
  unsigned profile = 0, level = 0, chroma = 9, isps = 0, ipps = 0, structure = 0;
  unsigned char depthLuma = 9, depthChroma = 9;
  unsigned char *sps = nullptr, *pps = nullptr;
  long long gop = 0;
  kiv::base::Fraction rate;
  EXPECT_TRUE(m->Get("width", width) && m->Get("height", height) && m->Get("interlace", interlace));
  EXPECT_TRUE(m->Get("profile", profile) && m->Get("level", level) && m->Get("chroma_format_idc", chroma));
  EXPECT_TRUE(m->Get("bit_depth_luma_minus8", depthLuma) && m->Get("bit_depth_chroma_minus8", depthChroma));
  EXPECT_TRUE(m->Get("sps", sps) && m->Get("isps", isps) && m->Get("pps", pps) && m->Get("ipps", ipps));
  EXPECT_TRUE(m->Get("struct", structure) && m->Get("gop", gop) && m->Get("framerate", rate));
  EXPECT_EQ(std::string(m->Codec()), "h264");
  EXPECT_EQ(width, 320);
  EXPECT_EQ(height, 240);
  EXPECT_FALSE(interlace);
  EXPECT_EQ(profile, d.sps.profile_idc);
  EXPECT_EQ(level, d.sps.level_idc);
  EXPECT_EQ(chroma, 1u);
  EXPECT_EQ(depthLuma, 0);
  EXPECT_EQ(depthChroma, 0);
  uint32_t ibbp = 0;
  kiv::Convert32(ibbp, "ibbp");
  EXPECT_EQ(structure, ibbp);
  EXPECT_EQ(gop, 15);
  EXPECT_EQ(rate, ntsc);
  ASSERT_EQ(isps, d.spsBytes.size());
  ASSERT_EQ(ipps, d.ppsBytes.size());
  ASSERT_TRUE(sps && pps);
  EXPECT_EQ(Bytes(sps, sps + isps), d.spsBytes);
  EXPECT_EQ(Bytes(pps, pps + ipps), d.ppsBytes);
  ASSERT_EQ(m->ExtraSize(), static_cast<int>(isps + ipps + 8));
  EXPECT_EQ(sps, m->Extra() + 4) << "the media owns the parameter set bytes";

  H264Reader r;
  ASSERT_TRUE(r.Open(path));
  EXPECT_FALSE(r.FrameRate(kiv::base::Fraction(0, 1)));
  EXPECT_FALSE(r.FrameRate(kiv::base::Fraction(-30, 1)));
  ASSERT_TRUE(r.FrameRate(ntsc));
  const std::vector<Unit> units = readUnits(path);
  long long next = 0;
  size_t i = 0;
  while (kiv::stream::Packet* p = r.NextPacket(m)) {
    ASSERT_NE(p, boxweave::PacketError());
    ASSERT_LT(i, units.size());
    EXPECT_EQ(p->index, static_cast<long long>(i));
    EXPECT_EQ(p->pts, static_cast<long long>(i) * 1001000000000LL / 30000);
    EXPECT_EQ(p->pts, next) << "durations add up without drift";
    next = p->pts + p->duration;
    EXPECT_EQ(p->IsKey(), units[i].key);
    EXPECT_EQ(p->media, m);
    EXPECT_EQ(Bytes(p->Data(), p->Data() + p->Size()), units[i].bytes);
    p->Release();
    ++i;
  }
  EXPECT_EQ(i, units.size());
  m->Release();

  // All intra: "iiii"; no B-frames: no "struct"; a reader that only scans makes no packets.
  const std::string intra = makeH264(t, "i.h264", "64x48", 3, "-pix_fmt yuv420p -g 1");
  const std::string plain = makeH264(t, "p.h264", "64x48", 3, "-pix_fmt yuv420p -bf 0");
  ASSERT_TRUE(!intra.empty() && !plain.empty());
  ASSERT_TRUE(boxweave::DescribeH264(intra, d, error)) << error;
  m = boxweave::NewH264Media(d, kiv::base::Fraction(25, 1));
  ASSERT_NE(m, nullptr);
  uint32_t iiii = 0;
  kiv::Convert32(iiii, "iiii");
  EXPECT_TRUE(m->Get("struct", structure));
  EXPECT_EQ(structure, iiii);
  m->Release();
  ASSERT_TRUE(boxweave::DescribeH264(plain, d, error)) << error;
  m = boxweave::NewH264Media(d, kiv::base::Fraction(25, 1));
  ASSERT_NE(m, nullptr);
  EXPECT_FALSE(m->HasProperty("struct"));
  m->Release();
  LogCapture log;
  EXPECT_EQ(boxweave::NewH264Media(d, kiv::base::Fraction(0, 1)), nullptr);
  H264Reader scan;
  scan.ScanOnly(true);
  ASSERT_TRUE(scan.Open(plain));
  EXPECT_EQ(scan.NextPacket(nullptr), boxweave::PacketError());
}

TEST(EsH264Sample, BundledSampleParses) {
  const std::string path = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/sample.h264";
  H264Description d;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeH264(path, d, error)) << error;
  EXPECT_EQ(d.sps.width, 320u);
  EXPECT_EQ(d.sps.height, 240u);
  EXPECT_EQ(d.sps.profile_idc, 100u);
  EXPECT_EQ(d.pictures, 120);
  EXPECT_EQ(d.gop, 30);
  EXPECT_EQ(d.keys, 4);
  EXPECT_TRUE(d.hasB);
  EXPECT_TRUE(boxweave::H264Warnings(d).empty());
  EXPECT_LE(d.maxHead + 4, 252u) << "the sample's heads are rewritten in place by the track";
  EXPECT_LT(d.bytes + iotest::readAll(std::string(BOXWEAVE_SOURCE_DIR) + "/samples/sample.aac").size(),
            300u * 1024);
}

// ---- AAC ADTS

namespace {

struct Frame {
  Bytes bytes;
  long long index;
  unsigned long long sample;
};
std::vector<Frame> readFrames(const std::string& path, size_t block = AdtsReader::kBlock, AdtsReader* keep = nullptr) {
  AdtsReader own(block);
  AdtsReader& r = keep ? *keep : own;
  std::vector<Frame> out;
  if (!r.Open(path)) return out;
  AdtsFrame f;
  while (r.Next(f)) out.push_back({Bytes(f.data, f.data + f.size), f.index, f.sample});
  return out;
}

// The frames of an ADTS byte string by their length fields.
std::vector<Bytes> splitAdts(const Bytes& s) {
  std::vector<Bytes> out;
  size_t i = 0;
  while (i + 7 <= s.size()) {
    const size_t len = ((s[i + 3] & 3u) << 11) | (s[i + 4] << 3) | (s[i + 5] >> 5);
    if (len < 7 || i + len > s.size()) break;
    out.emplace_back(s.begin() + i, s.begin() + i + len);
    i += len;
  }
  return out;
}
Bytes join(const std::vector<Bytes>& parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

std::string adtsError(const std::string& path) {
  AdtsDescription d;
  std::string error;
  EXPECT_FALSE(boxweave::DescribeAdts(path, d, error)) << path;
  return error;
}

}  // namespace

TEST(EsAdtsReader, RatesAndLayoutsAsFfprobeSeesThem) {
  NEED_FFMPEG();
  iotest::TempDir t;
  struct Case {
    int rate, channels;
    uint8_t asc0, asc1;
  } cases[] = {{44100, 1, 0x12, 0x08}, {48000, 2, 0x11, 0x90}, {44100, 2, 0x12, 0x10}, {48000, 1, 0x11, 0x88}};
  for (const Case& c : cases) {
    const std::string name = std::to_string(c.rate) + "_" + std::to_string(c.channels) + ".aac";
    const std::string path = makeAac(t, name, c.rate, c.channels, 1.5);
    ASSERT_FALSE(path.empty()) << name;
    AdtsDescription d;
    std::string error;
    ASSERT_TRUE(boxweave::DescribeAdts(path, d, error)) << error;
    const auto p = ffprobe(path);
    EXPECT_EQ(d.frames, num(p, "nb_read_packets")) << name;
    EXPECT_EQ(static_cast<long long>(d.config.rate), num(p, "sample_rate")) << name;
    EXPECT_EQ(static_cast<long long>(d.config.channels), num(p, "channels")) << name;
    EXPECT_EQ(d.config.objectType, 2u) << "AAC LC";
    EXPECT_EQ(d.asc[0], c.asc0) << name;
    EXPECT_EQ(d.asc[1], c.asc1) << name;
    EXPECT_EQ(d.samples, static_cast<unsigned long long>(d.frames) * 1024);
    // 64 kb/s asked; the encoder lands near it.
    EXPECT_GT(d.bitrate, 40000) << name;
    EXPECT_LT(d.bitrate, 90000) << name;
    EXPECT_FALSE(d.crc);
    EXPECT_EQ(d.resyncs, 0);
    EXPECT_TRUE(boxweave::AdtsWarnings(d).empty());
    // The frames as read are the file's frames, whatever the read size.
    const std::vector<Bytes> frames = splitAdts(iotest::readAll(path));
    for (size_t block : {size_t(1), size_t(6), AdtsReader::kBlock}) {
      const std::vector<Frame> got = readFrames(path, block);
      ASSERT_EQ(got.size(), frames.size()) << block;
      for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].bytes, frames[i]) << block << " frame " << i;
        EXPECT_EQ(got[i].sample, i * 1024);
      }
    }
  }
}

TEST(EsAdtsReader, CrcFramesAreHandedOnWithTheShortHeader) {
  NEED_FFMPEG();
  iotest::TempDir t;
  const std::string path = makeAac(t, "a.aac", 48000, 2, 0.5);
  ASSERT_FALSE(path.empty());
  const std::vector<Bytes> frames = splitAdts(iotest::readAll(path));
  ASSERT_GT(frames.size(), 5u);
  std::vector<Bytes> withCrc;
  for (const Bytes& f : frames) {
    Bytes c(f.begin(), f.begin() + 7);
    c[1] &= 0xfe;  // protection_absent 0
    const unsigned len = static_cast<unsigned>(f.size()) + 2;
    c[3] = static_cast<uint8_t>((c[3] & 0xfc) | (len >> 11));
    c[4] = static_cast<uint8_t>(len >> 3);
    c[5] = static_cast<uint8_t>((c[5] & 0x1f) | ((len & 7) << 5));
    c.push_back(0xab);
    c.push_back(0xcd);
    c.insert(c.end(), f.begin() + 7, f.end());
    withCrc.push_back(c);
  }
  writeAll(t.file("crc.aac"), join(withCrc));
  const std::vector<Frame> got = readFrames(t.file("crc.aac"));
  ASSERT_EQ(got.size(), frames.size());
  for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i].bytes, frames[i]) << i;
  AdtsDescription d;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeAdts(t.file("crc.aac"), d, error)) << error;
  EXPECT_TRUE(d.crc);
  EXPECT_EQ(d.frames, static_cast<long long>(frames.size()));
}

TEST(EsAdtsReader, DamageIsSkippedAndACutTailDropped) {
  NEED_FFMPEG();
  iotest::TempDir t;
  const std::string path = makeAac(t, "a.aac", 44100, 1, 1.0);
  ASSERT_FALSE(path.empty());
  const std::vector<Bytes> frames = splitAdts(iotest::readAll(path));
  ASSERT_GT(frames.size(), 20u);

  // Frame 5 with its sync word broken, and junk that holds a false sync word after frame 10.
  std::vector<Bytes> parts = frames;
  parts[5][0] = 0x12;
  parts[10].insert(parts[10].end(), {0x00, 0xff, 0xf1, 0x50, 0x80, 0xff, 0xff, 0x17});
  Bytes damaged = join(parts);
  size_t frame5 = 0;
  for (size_t i = 0; i < 5; ++i) frame5 += frames[i].size();
  writeAll(t.file("damaged.aac"), damaged);
  {
    LogCapture log;
    AdtsReader r(7);
    const std::vector<Frame> got = readFrames(t.file("damaged.aac"), 7, &r);
    ASSERT_EQ(got.size(), frames.size() - 1);
    for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i].bytes, frames[i < 5 ? i : i + 1]) << i;
    EXPECT_EQ(r.Resyncs(), 2);
    EXPECT_EQ(r.SkippedBytes(), frames[5].size() + 8);
    EXPECT_FALSE(r.TruncatedTail());
    EXPECT_TRUE(log.Has("damaged ADTS frame at byte " + std::to_string(frame5))) << "says where";
  }
  // A file cut inside its last frame (a frame has more than its 7-byte header).
  Bytes cut = iotest::readAll(path);
  cut.resize(cut.size() - 1);
  writeAll(t.file("cut.aac"), cut);
  {
    LogCapture log;
    AdtsReader r;
    const std::vector<Frame> got = readFrames(t.file("cut.aac"), AdtsReader::kBlock, &r);
    EXPECT_EQ(got.size(), frames.size() - 1);
    EXPECT_TRUE(r.TruncatedTail());
    EXPECT_FALSE(r.Failed());
    EXPECT_TRUE(log.Has("is cut off"));
    AdtsDescription d;
    std::string error;
    ASSERT_TRUE(boxweave::DescribeAdts(t.file("cut.aac"), d, error)) << error;
    EXPECT_EQ(boxweave::AdtsWarnings(d).size(), 1u);
  }
  // Damage with no frame behind it ends the stream cleanly.
  Bytes tail = join(std::vector<Bytes>(frames.begin(), frames.begin() + 3));
  tail.insert(tail.end(), 300, 0x5a);
  writeAll(t.file("tail.aac"), tail);
  {
    LogCapture log;
    EXPECT_EQ(readFrames(t.file("tail.aac")).size(), 3u);
    EXPECT_TRUE(log.Has("no frame behind it"));
  }
}

TEST(EsAdtsReader, RejectsWhatIsNotAdts) {
  NEED_FFMPEG();
  iotest::TempDir t;
  LogCapture log;
  EXPECT_NE(adtsError(t.file("missing.aac")).find("cannot open"), std::string::npos);
  writeAll(t.file("empty.aac"), {});
  EXPECT_NE(adtsError(t.file("empty.aac")).find("empty file"), std::string::npos);
  const std::string h264 = makeH264(t, "v.h264", "64x48", 2, "-pix_fmt yuv420p");
  ASSERT_FALSE(h264.empty());
  EXPECT_NE(adtsError(h264).find("not an ADTS stream"), std::string::npos);
  // A sync word by chance, with nothing like a frame behind it.
  Bytes chance = {0xff, 0xf1, 0x50, 0x80, 0x02, 0x1f, 0xfc};
  chance.insert(chance.end(), 200, 0x33);
  writeAll(t.file("chance.aac"), chance);
  EXPECT_NE(adtsError(t.file("chance.aac")).find("not followed by another"), std::string::npos);

  // An ID3 tag in front is passed over.
  const std::string path = makeAac(t, "a.aac", 48000, 2, 0.3);
  ASSERT_FALSE(path.empty());
  Bytes tagged = {'I', 'D', '3', 4, 0, 0, 0, 0, 1, 5};  // 133 bytes of tag
  tagged.insert(tagged.end(), 133, 0xff);
  const Bytes plain = iotest::readAll(path);
  tagged.insert(tagged.end(), plain.begin(), plain.end());
  writeAll(t.file("tagged.aac"), tagged);
  EXPECT_EQ(readFrames(t.file("tagged.aac")).size(), splitAdts(plain).size());

  EXPECT_TRUE(AdtsReader::HandlesPath("x.AAC"));
  EXPECT_FALSE(AdtsReader::HandlesPath("x.h264"));
}

TEST(EsAdtsPackets, TimesFromSamplesAndMediaAttributes) {
  NEED_FFMPEG();
  iotest::TempDir t;
  const std::string path = makeAac(t, "a.aac", 44100, 2, 1.0);
  ASSERT_FALSE(path.empty());
  AdtsDescription d;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeAdts(path, d, error)) << error;
  kiv::stream::IMedia* m = boxweave::NewAdtsMedia(d);
  ASSERT_NE(m, nullptr);
  int rate = 0, channel = 0, width = 0, depth = 0, bitrate = 0, adtslen = 0, frm = 0;
  EXPECT_TRUE(m->Get("rate", rate) && m->Get("channel", channel) && m->Get("width", width) &&
              m->Get("depth", depth) && m->Get("bitrate", bitrate) && m->Get("adtslen", adtslen) &&
              m->Get("frmSampNum", frm));
  EXPECT_EQ(std::string(m->Codec()), "aac");
  EXPECT_EQ(rate, 44100);
  EXPECT_EQ(channel, 2);
  EXPECT_EQ(width, 2);
  EXPECT_EQ(depth, 16);
  EXPECT_EQ(bitrate, d.bitrate);
  EXPECT_EQ(adtslen, 7);
  EXPECT_EQ(frm, 1024);
  ASSERT_EQ(m->ExtraSize(), 2);
  EXPECT_EQ(m->Extra()[0], 0x12);
  EXPECT_EQ(m->Extra()[1], 0x10);

  const std::vector<Bytes> frames = splitAdts(iotest::readAll(path));
  AdtsReader r;
  ASSERT_TRUE(r.Open(path));
  size_t i = 0;
  long long next = 0;
  while (kiv::stream::Packet* p = r.NextPacket(m)) {
    ASSERT_NE(p, boxweave::PacketError());
    ASSERT_LT(i, frames.size());
    EXPECT_EQ(p->pts, static_cast<long long>(i) * 1024 * 1000000000LL / 44100);
    EXPECT_EQ(p->pts, next);
    next = p->pts + p->duration;
    EXPECT_TRUE(p->IsKey());
    EXPECT_EQ(p->index, static_cast<long long>(i));
    EXPECT_EQ(p->media, m);
    EXPECT_EQ(Bytes(p->Data(), p->Data() + p->Size()), frames[i]) << "header kept for the track to cut";
    p->Release();
    ++i;
  }
  EXPECT_EQ(i, frames.size());
  EXPECT_EQ(static_cast<long long>(i), d.frames);
  m->Release();
}

TEST(EsAdtsSample, BundledSampleParses) {
  const std::string path = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/sample.aac";
  AdtsDescription d;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeAdts(path, d, error)) << error;
  EXPECT_EQ(d.config.rate, 48000u);
  EXPECT_EQ(d.config.channels, 2u);
  EXPECT_EQ(d.config.objectType, 2u);
  // Four seconds, and the encoder's priming frames.
  EXPECT_GE(d.samples, 4u * 48000);
  EXPECT_LT(d.samples, 4u * 48000 + 4 * 1024);
  EXPECT_EQ(d.resyncs, 0);
  EXPECT_FALSE(d.truncatedTail);
}

// ---- damaged input: whatever the bytes, a result or a clear error, and consistent counts

TEST(EsH264Reader, DamagedSampleGivesUnitsOrAnError) {
  const Bytes good = iotest::readAll(std::string(BOXWEAVE_SOURCE_DIR) + "/samples/sample.h264");
  ASSERT_FALSE(good.empty());
  iotest::TempDir t;
  LogCapture log;
  int parsed = 0;
  unsigned seed = 12345;
  const auto rnd = [&seed] { return seed = seed * 1103515245u + 12345u, (seed >> 8); };
  for (int round = 0; round < 60; ++round) {
    Bytes b(good.begin(), good.begin() + static_cast<long>(rnd() % good.size()));
    for (int k = 0; k < 1 + round; ++k)
      if (!b.empty()) b[rnd() % b.size()] = static_cast<unsigned char>(rnd());
    const std::string p = t.file("d.h264");
    writeAll(p, b);
    H264Description d;
    std::string error;
    if (!boxweave::DescribeH264(p, d, error)) {
      EXPECT_FALSE(error.empty()) << round;
      continue;
    }
    ++parsed;
    H264Reader r(977);
    ASSERT_TRUE(r.Open(p));
    unsigned long long bytes = 0;
    long long n = 0;
    while (kiv::stream::Packet* pk = r.NextPacket(nullptr)) {
      ASSERT_NE(pk, boxweave::PacketError()) << r.Error();
      bytes += static_cast<unsigned long long>(pk->Size());
      ++n;
      pk->Release();
    }
    EXPECT_EQ(n, d.pictures) << round;
    EXPECT_EQ(bytes, d.bytes) << round;
    EXPECT_LE(bytes, b.size() + b.size() / 3 + 4) << "a start code grows by at most one byte";
  }
  EXPECT_GT(parsed, 5) << "most damage leaves a usable stream";
}

TEST(EsAdtsReader, DamagedSampleGivesFramesOrAnError) {
  const Bytes good = iotest::readAll(std::string(BOXWEAVE_SOURCE_DIR) + "/samples/sample.aac");
  ASSERT_FALSE(good.empty());
  iotest::TempDir t;
  LogCapture log;
  int parsed = 0;
  unsigned seed = 777;
  const auto rnd = [&seed] { return seed = seed * 1103515245u + 12345u, (seed >> 8); };
  for (int round = 0; round < 60; ++round) {
    Bytes b(good.begin(), good.begin() + static_cast<long>(rnd() % good.size()));
    for (int k = 0; k < 1 + round; ++k)
      if (!b.empty()) b[rnd() % b.size()] = static_cast<unsigned char>(rnd());
    const std::string p = t.file("d.aac");
    writeAll(p, b);
    AdtsDescription d;
    std::string error;
    if (!boxweave::DescribeAdts(p, d, error)) {
      EXPECT_FALSE(error.empty()) << round;
      continue;
    }
    ++parsed;
    AdtsReader r(513);
    ASSERT_TRUE(r.Open(p));
    unsigned long long bytes = 0;
    long long n = 0;
    AdtsFrame f;
    while (r.Next(f)) {
      bytes += f.size + (f.hadCrc ? 2 : 0);
      ++n;
    }
    EXPECT_FALSE(r.Failed()) << r.Error();
    EXPECT_EQ(n, d.frames) << round;
    EXPECT_EQ(bytes + r.SkippedBytes(), b.size()) << "every byte is a frame's or counted as skipped";
  }
  EXPECT_GT(parsed, 5) << "most damage leaves a usable stream";
}
