// The host's elementary-stream readers against streams that ffmpeg makes, with ffprobe as the judge.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "stream/base/Helpers.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "tests/LogCapture.h"
#include "tests/ToolRun.h"
#include "tests/io_test_util.h"
#include "tools/AdtsReader.h"
#include "tools/H264Reader.h"

using namespace boxweave;
using iotest::readAll;
using iotest::writeAll;
using kiv::stream::IMedia;
using kiv::stream::Packet;
using Bytes = std::vector<unsigned char>;

namespace {

#define NEED_FFMPEG() \
  if (!Shell("ffmpeg -version && ffprobe -version")) GTEST_SKIP() << "ffmpeg and ffprobe are needed"

bool ffmpeg(const std::string& args) { return Shell("ffmpeg -hide_banner -loglevel error -y " + args); }
// testsrc at 30 fps through libx264 into a raw Annex-B file; empty when ffmpeg fails.
std::string makeH264(const iotest::TempDir& t, const std::string& name, const std::string& size, int frames,
                     const std::string& opts) {
  const std::string path = t.file(name), n = std::to_string(frames);
  return ffmpeg("-f lavfi -i testsrc=size=" + size + ":rate=30 -frames:v " + n +
                " -c:v libx264 -sc_threshold 0 -pix_fmt yuv420p " + opts + " -f h264 " + path)
             ? path
             : "";
}
std::string makeAac(const iotest::TempDir& t, const std::string& name, int rate, int channels, double seconds) {
  const std::string path = t.file(name);
  return ffmpeg("-f lavfi -i sine=frequency=440:sample_rate=" + std::to_string(rate) + ":duration=" +
                std::to_string(seconds) + " -ac " + std::to_string(channels) + " -c:a aac -b:a 64k -f adts " + path)
             ? path
             : "";
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
    out.emplace_back(s.begin() + static_cast<long>(starts[k]), s.begin() + static_cast<long>(end));
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
  int slices;
  size_t head;      // bytes ahead of the first slice
};
std::vector<Unit> readUnits(const std::string& path) {
  H264Reader r;
  std::vector<Unit> out;
  H264AccessUnit au;
  if (r.Open(path))
    while (r.Next(au)) {
      EXPECT_EQ(au.index, static_cast<long long>(out.size()));
      out.push_back({Bytes(au.data, au.data + au.size), au.key, au.slices, au.head});
    }
  return out;
}

// Every start code in the bytes has four bytes.
bool onlyLongStartCodes(const Bytes& b) {
  for (size_t i = 3; i < b.size(); ++i)
    if (b[i] == 1 && b[i - 1] == 0 && b[i - 2] == 0 && b[i - 3] != 0) return false;
  return b.size() >= 4 && b[0] == 0 && b[1] == 0 && b[2] == 0 && b[3] == 1;
}

// A reader's packets for `m`: the expected bytes and keys, numbered, at i * num / den ns rounded to
// nearest, times that also add up by durations without drift.
template <class Reader>
void expectPackets(Reader& r, IMedia* m, const std::vector<Bytes>& bytes, const std::vector<bool>& keys, long long num,
                   long long den) {
  long long next = 0;
  size_t i = 0;
  for (Packet* pk; (pk = r.NextPacket(m)) != nullptr; ++i, pk->Release()) {
    ASSERT_TRUE(pk != PacketError() && i < bytes.size());
    EXPECT_EQ(std::make_tuple(pk->index, pk->pts, pk->pts, pk->IsKey(), pk->media, Bytes(pk->Data(), pk->Data() + pk->Size())),
              std::make_tuple(static_cast<long long>(i), (static_cast<long long>(i) * num + den / 2) / den, next,
                              static_cast<bool>(keys[i]), m, bytes[i]))
        << i << ": index, pts, pts by durations, key, media, bytes";
    next = pk->pts + pk->duration;
  }
  EXPECT_EQ(i, bytes.size());
}

// Sixty copies of a bundled sample, cut short and scribbled over, each written to `file` and handed to
// `check`, which says whether it parsed.
template <class Check>
int damagedCopies(const std::string& sample, unsigned seed, const std::string& file, Check check) {
  const Bytes good = readAll(std::string(BOXWEAVE_SOURCE_DIR) + "/samples/" + sample);
  EXPECT_FALSE(good.empty());
  const auto rnd = [&seed] { return seed = seed * 1103515245u + 12345u, (seed >> 8); };
  int parsed = 0;
  for (int round = 0; round < 60 && !good.empty(); ++round) {
    Bytes b(good.begin(), good.begin() + static_cast<long>(rnd() % good.size()));
    for (int k = 0; k < 1 + round; ++k)
      if (!b.empty()) b[rnd() % b.size()] = static_cast<unsigned char>(rnd());
    writeAll(file, b);
    SCOPED_TRACE(round);
    parsed += check(b) ? 1 : 0;
  }
  return parsed;
}

std::vector<Bytes> readFrames(const std::string& path, size_t block = AdtsReader::kBlock, AdtsReader* keep = nullptr) {
  AdtsReader own(block);
  AdtsReader& r = keep ? *keep : own;
  std::vector<Bytes> out;
  AdtsFrame f;
  for (bool open = r.Open(path); open && r.Next(f);) out.emplace_back(f.data, f.data + f.size);
  return out;
}

// The frames of an ADTS byte string by their length fields.
std::vector<Bytes> splitAdts(const Bytes& s) {
  std::vector<Bytes> out;
  for (size_t i = 0, len; i + 7 <= s.size(); i += len) {
    len = ((s[i + 3] & 3u) << 11) | (s[i + 4] << 3) | (s[i + 5] >> 5);
    if (len < 7 || i + len > s.size()) break;
    out.emplace_back(s.begin() + static_cast<long>(i), s.begin() + static_cast<long>(i + len));
  }
  return out;
}
Bytes join(const std::vector<Bytes>& parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

}  // namespace

// ---- H.264

TEST(EsH264Reader, DescribesSplitsAndTimesStreamsAsFfprobeSeesThem) {
  NEED_FFMPEG();
  iotest::TempDir t;
  struct Case {
    const char *name, *size;
    int frames;
    const char* opts;
    bool hasB, allIntra, interlace;
    long long gop, keys;
    int slices;
    unsigned chroma, depth;  // chroma_format_idc, bit depth - 8
    const char *structure, *warning;
  } cases[] = {
      {"b", "320x240", 65, "-g 30 -bf 2", true, false, false, 30, 3, 1, 1, 0, "ibbp", nullptr},
      {"intra", "320x240", 31, "-g 1", false, true, false, 1, 31, 1, 1, 0, "iiii", nullptr},
      {"slices", "320x240", 20, "-g 10 -bf 0 -x264-params slices=4", false, false, false, 10, 2, 4, 1, 0, nullptr,
       "4 slices"},
      {"cropped", "100x60", 5, "-g 5 -bf 0", false, false, false, 5, 1, 1, 1, 0, nullptr, nullptr},
      {"interlaced", "320x240", 6, "-g 6 -bf 0 -flags +ildct+ilme", false, false, true, 6, 1, 1, 1, 0, nullptr,
       nullptr},
      {"deep422", "64x48", 3, "-g 3 -bf 0 -pix_fmt yuv422p10le", false, false, false, 3, 1, 1, 2, 2, nullptr, nullptr},
  };
  const kiv::base::Fraction ntsc(30000, 1001);
  static const std::map<std::string, unsigned> idc = {{"Main", 77}, {"High", 100}, {"High 4:2:2", 122}};
  H264Description d;
  std::string error;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = makeH264(t, std::string(c.name) + ".h264", c.size, c.frames, c.opts);
    ASSERT_FALSE(path.empty());
    ASSERT_TRUE(boxweave::DescribeH264(path, d, error)) << error;
    Fields p = Probe(path)["video"];
    EXPECT_EQ(std::make_tuple(d.pictures, d.sps.width, d.sps.height, d.sps.level_idc, d.sps.profile_idc),
              std::make_tuple(Count(p, "nb_read_frames"), static_cast<unsigned>(Count(p, "width")),
                              static_cast<unsigned>(Count(p, "height")), static_cast<unsigned>(Count(p, "level")),
                              idc.count(p["profile"]) ? idc.at(p["profile"]) : 0u))
        << "pictures, width, height, level, profile";
    EXPECT_EQ(std::make_tuple(d.hasB, d.allIntra, d.interlace(), d.gop, d.keys, d.firstKey, d.maxSlices),
              std::make_tuple(c.hasB, c.allIntra, c.interlace, c.gop, c.keys, 0LL, c.slices));
    EXPECT_EQ(std::make_tuple(d.sps.chroma_format_idc, d.sps.bit_depth_luma_minus8, d.sps.bit_depth_chroma_minus8),
              std::make_tuple(c.chroma, c.depth, c.depth));
    const auto warnings = boxweave::H264Warnings(d);
    EXPECT_TRUE(c.warning ? warnings.size() == 1 && warnings[0].find(c.warning) != std::string::npos : warnings.empty())
        << warnings.size() << " warnings";
    // The access units one by one add up to the description, with four-byte start codes.
    const std::vector<Unit> units = readUnits(path);
    ASSERT_EQ(static_cast<long long>(units.size()), d.pictures);
    unsigned long long bytes = 0;
    for (size_t i = 0; i < units.size(); ++i) {
      bytes += units[i].bytes.size();
      EXPECT_TRUE(onlyLongStartCodes(units[i].bytes)) << i;
      EXPECT_EQ(std::make_pair(units[i].key, units[i].slices),
                std::make_pair(i % static_cast<size_t>(c.gop) == 0, c.slices))
          << i;
    }
    EXPECT_EQ(bytes, d.bytes);
    // Parameter sets stand in the first unit, in front of its slice.
    const std::vector<Bytes> first = splitNals(units[0].bytes);
    ASSERT_GE(first.size(), 3u);
    EXPECT_TRUE(first[0] == d.spsBytes && first[1] == d.ppsBytes);
    size_t head = 0;
    for (size_t k = 0; k < first.size() && (first[k][0] & 0x1f) != 5; ++k) head += 4 + first[k].size();
    EXPECT_EQ(units[0].head, head);
    EXPECT_EQ(d.maxHead, head) << "the encoder's banner SEI stands in the first picture only";
    // The media a track takes: a field's height when interlaced, and the parameter sets in its extra data.
    IMedia* m = boxweave::NewH264Media(d, ntsc);
    ASSERT_NE(m, nullptr);
    int width = 0, height = 0;
    bool interlace = !c.interlace;
    unsigned profile = 0, level = 0, chroma = 9, isps = 0, ipps = 0, structure = 0;
    unsigned char depthLuma = 9, depthChroma = 9, *sps = nullptr, *pps = nullptr;
    long long gop = 0;
    kiv::base::Fraction rate;
    EXPECT_TRUE(m->Get("width", width) && m->Get("height", height) && m->Get("interlace", interlace) &&
                m->Get("profile", profile) && m->Get("level", level) && m->Get("chroma_format_idc", chroma) &&
                m->Get("bit_depth_luma_minus8", depthLuma) && m->Get("bit_depth_chroma_minus8", depthChroma) &&
                m->Get("sps", sps) && m->Get("isps", isps) && m->Get("pps", pps) && m->Get("ipps", ipps) &&
                m->Get("gop", gop) && m->Get("framerate", rate));
    EXPECT_TRUE(std::string(m->Codec()) == "h264" && rate == ntsc);
    EXPECT_EQ(std::make_tuple(width, height, interlace, profile, level, chroma, depthLuma, depthChroma, gop),
              std::make_tuple(static_cast<int>(d.sps.width), static_cast<int>(d.sps.height >> c.interlace), c.interlace,
                              d.sps.profile_idc, d.sps.level_idc, c.chroma, static_cast<unsigned char>(c.depth),
                              static_cast<unsigned char>(c.depth), c.gop));
    uint32_t fourcc = 0;
    if (c.structure) kiv::Convert32(fourcc, c.structure);
    EXPECT_TRUE(m->Get("struct", structure) == (c.structure != nullptr) && structure == fourcc);
    ASSERT_TRUE(sps && pps && m->ExtraSize() == static_cast<int>(isps + ipps + 8));
    EXPECT_TRUE(Bytes(sps, sps + isps) == d.spsBytes && Bytes(pps, pps + ipps) == d.ppsBytes);
    EXPECT_EQ(sps, m->Extra() + 4) << "the media owns the parameter set bytes";
    // Its packets: the units' bytes and keys.
    H264Reader r;
    ASSERT_TRUE(r.Open(path) && r.FrameRate(ntsc));
    std::vector<Bytes> got;
    std::vector<bool> keys;
    for (const Unit& u : units) got.push_back(u.bytes), keys.push_back(u.key);
    expectPackets(r, m, got, keys, 1001000000000LL, 30000);
    m->Release();
  }
  // No usable frame rate, no media and no times; a reader that only scans makes no packets.
  LogCapture log;
  H264Reader scan;
  EXPECT_FALSE(boxweave::NewH264Media(d, kiv::base::Fraction(0, 1)) || scan.FrameRate(kiv::base::Fraction(0, 1)) ||
               scan.FrameRate(kiv::base::Fraction(-30, 1)));
  scan.ScanOnly(true);
  EXPECT_TRUE(scan.Open(t.file("cropped.h264")) && scan.NextPacket(nullptr) == boxweave::PacketError());
}

// ---- AAC ADTS

TEST(EsAdtsReader, RatesLayoutsFramesAndPacketsAsFfprobeSeesThem) {
  NEED_FFMPEG();
  iotest::TempDir t;
  struct Case {
    int rate, channels;
    Bytes asc;
  } cases[] = {{44100, 1, {0x12, 0x08}}, {48000, 2, {0x11, 0x90}}};
  for (const Case& c : cases) {
    const std::string name = std::to_string(c.rate) + "_" + std::to_string(c.channels) + ".aac";
    SCOPED_TRACE(name);
    const std::string path = makeAac(t, name, c.rate, c.channels, 1.5);
    ASSERT_FALSE(path.empty());
    AdtsDescription d;
    std::string error;
    ASSERT_TRUE(boxweave::DescribeAdts(path, d, error)) << error;
    Fields p = Probe(path)["audio"];
    EXPECT_EQ(std::make_tuple(d.frames, static_cast<long long>(d.config.rate),
                              static_cast<long long>(d.config.channels), d.config.objectType),
              std::make_tuple(Count(p, "nb_read_packets"), Count(p, "sample_rate"), Count(p, "channels"), 2u));
    EXPECT_EQ(Bytes(d.asc, d.asc + 2), c.asc);
    EXPECT_EQ(d.samples, static_cast<unsigned long long>(d.frames) * 1024);
    EXPECT_TRUE(d.bitrate > 40000 && d.bitrate < 90000) << d.bitrate << ": 64 kb/s asked";
    EXPECT_TRUE(!d.crc && d.resyncs == 0 && boxweave::AdtsWarnings(d).empty());
    // The frames as read are the file's frames, whatever the read size.
    const std::vector<Bytes> frames = splitAdts(readAll(path));
    for (size_t block : {1, 6}) EXPECT_EQ(readFrames(path, block), frames) << block;
    // The media a track takes, and its packets: the frames with their header, timed by samples.
    IMedia* m = boxweave::NewAdtsMedia(d);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(std::string(m->Codec()), "aac");
    EXPECT_EQ(Bytes(m->Extra(), m->Extra() + m->ExtraSize()), c.asc);
    AdtsReader r;
    ASSERT_TRUE(r.Open(path));
    expectPackets(r, m, frames, std::vector<bool>(frames.size(), true), 1024 * 1000000000LL, c.rate);
    m->Release();
  }
}

// CRC frames are handed on with the short header, an ID3 tag is passed over, damage is skipped, and a cut tail
// dropped.
TEST(EsAdtsReader, CrcId3DamageAndACutTail) {
  NEED_FFMPEG();
  iotest::TempDir t;
  const std::string path = makeAac(t, "a.aac", 44100, 1, 1.0);
  ASSERT_FALSE(path.empty());
  const Bytes plain = readAll(path);
  const std::vector<Bytes> frames = splitAdts(plain);
  ASSERT_GT(frames.size(), 20u);
  std::vector<Bytes> withCrc;
  for (const Bytes& f : frames) {
    Bytes c(f.begin(), f.begin() + 7);
    c[1] &= 0xfe;  // protection_absent 0
    const unsigned len = static_cast<unsigned>(f.size()) + 2;
    c[3] = static_cast<uint8_t>((c[3] & 0xfc) | (len >> 11));
    c[4] = static_cast<uint8_t>(len >> 3);
    c[5] = static_cast<uint8_t>((c[5] & 0x1f) | ((len & 7) << 5));
    c.insert(c.end(), {0xab, 0xcd});
    c.insert(c.end(), f.begin() + 7, f.end());
    withCrc.push_back(c);
  }
  writeAll(t.file("crc.aac"), join(withCrc));
  EXPECT_EQ(readFrames(t.file("crc.aac")), frames);
  AdtsDescription d;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeAdts(t.file("crc.aac"), d, error)) << error;
  EXPECT_TRUE(d.crc);
  EXPECT_EQ(d.frames, static_cast<long long>(frames.size()));
  // Frame 5 with its sync word broken, and junk that holds a false sync word after frame 10.
  std::vector<Bytes> parts = frames;
  parts[5][0] = 0x12;
  parts[10].insert(parts[10].end(), {0x00, 0xff, 0xf1, 0x50, 0x80, 0xff, 0xff, 0x17});
  writeAll(t.file("damaged.aac"), join(parts));
  LogCapture log;
  AdtsReader damaged(7), cut;
  std::vector<Bytes> expected = frames;
  expected.erase(expected.begin() + 5);
  EXPECT_EQ(readFrames(t.file("damaged.aac"), 7, &damaged), expected);
  EXPECT_EQ(std::make_tuple(damaged.Resyncs(), damaged.SkippedBytes(), damaged.TruncatedTail()),
            std::make_tuple(2LL, frames[5].size() + 8ull, false));
  // A file cut inside its last frame (a frame has more than its 7-byte header).
  writeAll(t.file("cut.aac"), Bytes(plain.begin(), plain.end() - 1));
  EXPECT_EQ(readFrames(t.file("cut.aac"), AdtsReader::kBlock, &cut).size(), frames.size() - 1);
  EXPECT_TRUE(cut.TruncatedTail() && !cut.Failed());
  ASSERT_TRUE(boxweave::DescribeAdts(t.file("cut.aac"), d, error)) << error;
  EXPECT_EQ(boxweave::AdtsWarnings(d).size(), 1u);
  // An ID3 tag in front is passed over.
  Bytes tagged = {'I', 'D', '3', 4, 0, 0, 0, 0, 1, 5};  // 133 bytes of tag
  tagged.insert(tagged.end(), 133, 0xff);
  tagged.insert(tagged.end(), plain.begin(), plain.end());
  writeAll(t.file("tagged.aac"), tagged);
  EXPECT_EQ(readFrames(t.file("tagged.aac")), frames);
  // Damage with no frame behind it ends the stream cleanly.
  Bytes tail = join(std::vector<Bytes>(frames.begin(), frames.begin() + 3));
  tail.insert(tail.end(), 300, 0x5a);
  writeAll(t.file("tail.aac"), tail);
  EXPECT_EQ(readFrames(t.file("tail.aac")).size(), 3u);
}

// ---- both readers

TEST(EsReaders, RejectWhatTheyCannotReadWithTheReason) {
  NEED_FFMPEG();
  iotest::TempDir t;
  LogCapture log;
  writeAll(t.file("empty"), {});
  writeAll(t.file("text"), Bytes(30, 'x'));
  ASSERT_TRUE(
      ffmpeg("-f lavfi -i testsrc=size=64x48:rate=30 -frames:v 2 -c:v mpeg2video -f mpeg2video " + t.file("m2")));
  // Streams that lack a parameter set, or whose SPS is damaged.
  const std::string ok = makeH264(t, "ok.h264", "64x48", 4, "");
  ASSERT_FALSE(ok.empty());
  std::vector<Bytes> noSps, noPps, badSps;
  for (const Bytes& n : splitNals(readAll(ok))) {
    if ((n[0] & 0x1f) != 7) noSps.push_back(n);
    if ((n[0] & 0x1f) != 8) noPps.push_back(n);
    badSps.push_back((n[0] & 0x1f) == 7 ? Bytes{0x67, 0x64, 0x00, 0x0d, 0x80} : n);
  }
  writeAll(t.file("nosps"), joinNals(noSps, 4));
  writeAll(t.file("nopps"), joinNals(noPps, 4));
  writeAll(t.file("badsps"), joinNals(badSps, 4));
  Bytes chance = {0xff, 0xf1, 0x50, 0x80, 0x02, 0x1f, 0xfc};  // a sync word by chance, no frame behind it
  chance.insert(chance.end(), 200, 0x33);
  writeAll(t.file("chance"), chance);
  const struct {
    const char* file;
    bool h264;
    const char* says;
  } cases[] = {{"missing", true, "cannot open"},      {"empty", true, "empty file"},
               {"text", true, "no start code"},       {"text", false, "not an ADTS stream"},
               {"m2", true, "not an H.264 stream"},   {"nosps", true, "no SPS"},
               {"nopps", true, "no PPS"},             {"badsps", true, "unparsable SPS"},
               {"missing", false, "cannot open"},     {"empty", false, "empty file"},
               {"ok.h264", false, "not an ADTS stream"}, {"chance", false, "not followed by another"}};
  for (const auto& c : cases) {
    H264Description h;
    AdtsDescription a;
    std::string why;
    EXPECT_FALSE(c.h264 ? boxweave::DescribeH264(t.file(c.file), h, why) : boxweave::DescribeAdts(t.file(c.file), a, why));
    EXPECT_NE(why.find(c.says), std::string::npos) << c.file << (c.h264 ? " as H.264: " : " as ADTS: ") << why;
  }
  EXPECT_TRUE(H264Reader::HandlesPath("a/b.H264") && H264Reader::HandlesPath("x.264") &&
              AdtsReader::HandlesPath("x.AAC"));
  EXPECT_FALSE(H264Reader::HandlesPath("x.aac") || H264Reader::HandlesPath("h264") ||
               AdtsReader::HandlesPath("x.h264"));
}

TEST(EsReaders, BundledSamplesParseAndDamagedCopiesGiveResultsOrAnError) {
  const std::string dir = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
  // (What the samples hold is checked against ffprobe where they are recorded.)
  H264Description hd;
  std::string error;
  ASSERT_TRUE(boxweave::DescribeH264(dir + "sample.h264", hd, error)) << error;
  EXPECT_LE(hd.maxHead + 4, 252u) << "the sample's heads are rewritten in place by the track";
  iotest::TempDir t;
  LogCapture log;
  const std::string file = t.file("damaged");
  // Whatever parses reads to its end without failing, with the description's counts.
  const auto h264 = [&](const Bytes& b) {
    H264Description d;
    std::string why;
    if (!boxweave::DescribeH264(file, d, why)) {
      EXPECT_FALSE(why.empty());
      return false;
    }
    H264Reader r(977);
    EXPECT_TRUE(r.Open(file));
    unsigned long long bytes = 0;
    long long n = 0;
    for (Packet* pk; (pk = r.NextPacket(nullptr)) != nullptr && pk != boxweave::PacketError(); ++n, pk->Release())
      bytes += static_cast<unsigned long long>(pk->Size());
    EXPECT_FALSE(r.Failed()) << r.Error();
    EXPECT_EQ(std::make_pair(n, bytes), std::make_pair(d.pictures, d.bytes));
    EXPECT_LE(bytes, b.size() + b.size() / 3 + 4) << "a start code grows by at most one byte";
    return true;
  };
  const auto adts = [&](const Bytes& b) {
    AdtsDescription d;
    std::string why;
    if (!boxweave::DescribeAdts(file, d, why)) {
      EXPECT_FALSE(why.empty());
      return false;
    }
    AdtsReader r(513);
    EXPECT_TRUE(r.Open(file));
    unsigned long long bytes = 0;
    long long n = 0;
    for (AdtsFrame f; r.Next(f); ++n) bytes += f.size + (f.hadCrc ? 2 : 0);
    EXPECT_FALSE(r.Failed()) << r.Error();
    EXPECT_EQ(n, d.frames);
    EXPECT_EQ(bytes + r.SkippedBytes(), b.size()) << "every byte is a frame's or counted as skipped";
    return true;
  };
  EXPECT_GT(damagedCopies("sample.h264", 12345, file, h264), 5) << "most damage leaves a usable stream";
  EXPECT_GT(damagedCopies("sample.aac", 777, file, adts), 5);
}
