// The host's Motion-JPEG, PCM and SubRip readers on byte strings made here: where pictures split,
// which WAVE headers pass, how cues become text samples, and that damaged input ends in a clear
// reason and never in a crash or a read past the data.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "stream/core/Packet.h"
#include "tests/io_test_util.h"
#include "tools/MjpegReader.h"
#include "tools/PcmReader.h"
#include "tools/SrtReader.h"

using namespace boxweave;
using iotest::writeAll;
using kiv::stream::Packet;
using Bytes = std::vector<unsigned char>;

namespace {

Bytes cat(const std::vector<Bytes>& parts) {
  Bytes b;
  for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
  return b;
}
Bytes str(const std::string& s) { return Bytes(s.begin(), s.end()); }
// Cues or text samples as "start-end 'text'" lines.
template <class T>
std::string show(const std::vector<T>& cues) {
  std::string s;
  for (const auto& c : cues) s += std::to_string(c.start) + "-" + std::to_string(c.end) + " '" + c.text + "'\n";
  return s;
}
// A marker segment: FF m, a length that counts itself, the payload.
Bytes segment(unsigned char m, const Bytes& payload) {
  const size_t n = payload.size() + 2;
  return cat({{0xFF, m, static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)}, payload});
}
// A picture: SOI, an APP0 whose payload holds FF D9 (no end), SOF0 of w x h, SOS and entropy data with
// a stuffed FF 00 and a restart marker, then EOI.
Bytes picture(unsigned w, unsigned h, unsigned char fill = 0x11) {
  const Bytes sof = {8, static_cast<unsigned char>(h >> 8), static_cast<unsigned char>(h), static_cast<unsigned char>(w >> 8),
                     static_cast<unsigned char>(w), 1, 1, 0x11, 0};
  return cat({{0xFF, 0xD8}, segment(0xE0, {'J', 'F', 'I', 'F', 0, 0xFF, 0xD9, 0xFF, 0xD8}), segment(0xC0, sof),
              segment(0xDA, {1, 1, 0, 0, 0x3F, 0}), {fill, 0xFF, 0x00, fill, 0xFF, 0xD0, fill, fill}, {0xFF, 0xD9}});
}

struct Pictures {
  std::vector<size_t> sizes;
  std::vector<unsigned> widths;
  std::string error;
  unsigned long long skipped = 0;
  bool truncated = false;
};
Pictures readPictures(const std::string& path, size_t block) {
  Pictures out;
  MjpegReader r(block);
  if (!r.Open(path)) {
    out.error = r.Error();
    return out;
  }
  JpegPicture p;
  while (r.Next(p)) {
    out.sizes.push_back(p.size);
    out.widths.push_back(p.width);
    EXPECT_EQ(p.data[0], 0xFF);
    EXPECT_EQ(p.data[p.size - 1], 0xD9);
  }
  out.error = r.Error();
  out.skipped = r.SkippedBytes();
  out.truncated = r.TruncatedTail();
  return out;
}

TEST(MjpegReader, SplitsAtTheEndOfEachPictureHonouringSegmentLengths) {
  iotest::TempDir t;
  const Bytes a = picture(320, 240), b = picture(640, 480, 0x22);
  struct Case {
    const char* name;
    Bytes file;
    std::vector<size_t> sizes;
    std::vector<unsigned> widths;
    unsigned long long skipped;
    bool truncated;
    const char* error;  // part of the reason, "" for none
  } cases[] = {
      {"two pictures", cat({a, b}), {a.size(), b.size()}, {320, 640}, 0, false, ""},
      {"fill bytes before a marker", cat({{0xFF, 0xD8, 0xFF, 0xFF}, Bytes(a.begin() + 2, a.end())}), {a.size() + 2}, {320}, 0, false, ""},
      {"bytes between pictures", cat({a, {0, 0, 0x55}, b}), {a.size(), b.size()}, {320, 640}, 3, false, ""},
      {"the last picture cut off", cat({a, Bytes(b.begin(), b.end() - 5)}), {a.size()}, {320}, b.size() - 5, true, ""},
      {"cut inside a segment", cat({a, Bytes(b.begin(), b.begin() + 10)}), {a.size()}, {320}, 10, true, ""},
      {"not JPEG", str("RIFF...."), {}, {}, 0, false, "no JPEG picture (SOI marker FF D8) at its start"},
      {"empty", {}, {}, {}, 0, false, "empty file"},
      {"segment length below 2", cat({{0xFF, 0xD8, 0xFF, 0xE0, 0, 1}}), {}, {}, 0, false, "segment length 1"},
      {"no marker where one belongs", cat({{0xFF, 0xD8, 0x12}}), {}, {}, 0, false, "no marker at byte 2"},
      {"a picture inside a picture", cat({{0xFF, 0xD8}, a}), {}, {}, 0, false, "a new picture starts at byte 2"},
  };
  for (const Case& c : cases) {
    for (size_t block : {size_t{3}, size_t{64}, MjpegReader::kBlock}) {
      SCOPED_TRACE(std::string(c.name) + ", block " + std::to_string(block));
      const std::string path = t.file("in.mjpeg");
      writeAll(path, c.file);
      const Pictures got = readPictures(path, block);
      EXPECT_EQ(got.sizes, c.sizes);
      EXPECT_EQ(got.widths, c.widths);
      if (*c.error) {
        EXPECT_NE(got.error.find(c.error), std::string::npos) << got.error;
      } else {
        EXPECT_EQ(got.error, "");
        EXPECT_EQ(got.skipped, c.skipped);
        EXPECT_EQ(got.truncated, c.truncated);
      }
    }
  }
}

TEST(MjpegReader, DescribesAndTimesThePictures) {
  iotest::TempDir t;
  const std::string path = t.file("in.mjpg");
  writeAll(path, cat({picture(320, 240), picture(320, 240), picture(160, 120)}));
  MjpegDescription d;
  std::string error;
  ASSERT_TRUE(DescribeMjpeg(path, d, error)) << error;
  EXPECT_EQ(std::make_tuple(d.pictures, d.width, d.height, d.sizeChanges), std::make_tuple(3, 320u, 240u, 1));
  ASSERT_EQ(MjpegWarnings(d).size(), 1u);
  EXPECT_NE(MjpegWarnings(d)[0].find("1 pictures differ in size"), std::string::npos);

  MjpegReader r;
  ASSERT_TRUE(r.Open(path));
  ASSERT_TRUE(r.FrameRate(kiv::base::Fraction(30000, 1001)));
  const long long expected[][2] = {{0, 33366666}, {33366666, 33366667}, {66733333, 33366667}};
  for (const auto& e : expected) {
    Packet* p = r.NextPacket(nullptr);
    ASSERT_TRUE(p && p != PacketError());
    EXPECT_EQ(std::make_tuple(p->IsKey(), p->pts, p->duration), std::make_tuple(true, e[0], e[1]));
    kiv::base::Release(p);
  }
  EXPECT_EQ(r.NextPacket(nullptr), nullptr);
  EXPECT_FALSE(r.FrameRate(kiv::base::Fraction(0, 1)));
}

// A WAVE file: RIFF header, the given chunks.
Bytes wave(const std::vector<Bytes>& chunks) {
  Bytes body = str("WAVE");
  for (const Bytes& c : chunks) body.insert(body.end(), c.begin(), c.end());
  const uint32_t n = static_cast<uint32_t>(body.size());
  return cat({str("RIFF"), {static_cast<unsigned char>(n), static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n >> 16), 0}, body});
}
Bytes le(uint32_t v, int bytes) {
  Bytes b;
  for (int i = 0; i < bytes; ++i) b.push_back(static_cast<unsigned char>(v >> (8 * i)));
  return b;
}
Bytes chunk(const char* id, const Bytes& payload, uint32_t told) {
  Bytes b = cat({str(id), le(told, 4), payload});
  if (payload.size() & 1) b.push_back(0);
  return b;
}
Bytes chunk(const char* id, const Bytes& payload) { return chunk(id, payload, static_cast<uint32_t>(payload.size())); }
Bytes fmt(unsigned tag, unsigned channels, unsigned rate, unsigned bits) {
  const unsigned align = channels * bits / 8;
  return chunk("fmt ", cat({le(tag, 2), le(channels, 2), le(rate, 4), le(rate * align, 4), le(align, 2), le(bits, 2)}));
}
Bytes extensible(unsigned subTag, unsigned channels, unsigned rate, unsigned bits) {
  const unsigned align = channels * bits / 8;
  return chunk("fmt ", cat({le(0xFFFE, 2), le(channels, 2), le(rate, 4), le(rate * align, 4), le(align, 2), le(bits, 2),
                            le(22, 2), le(bits, 2), le(3, 4), le(subTag, 2), Bytes(14, 0x10)}));
}

TEST(PcmReader, TakesSixteenBitPcmWaveAndRefusesTheRestByName) {
  iotest::TempDir t;
  const Bytes samples(4 * 960 * 2 + 6, 0x42);  // two packets of 20 ms at 48 kHz stereo, 1.5 frames more
  struct Case {
    const char* name;
    Bytes file;
    unsigned rate, channels;
    unsigned long long frames, packetFrames, oddBytes;
    bool clamped;
    const char* error;
  } cases[] = {
      {"plain", wave({fmt(1, 2, 48000, 16), chunk("data", samples)}), 48000, 2, 1921, 1920, 2, false, ""},
      {"a list chunk of odd size first", wave({chunk("LIST", Bytes(5, 'x')), fmt(1, 2, 48000, 16), chunk("data", samples)}), 48000, 2, 1921, 1920, 2, false, ""},
      {"extensible PCM", wave({extensible(1, 1, 16000, 16), chunk("data", Bytes(640 * 2, 1))}), 16000, 1, 640, 640, 0, false, ""},
      {"data size left open", wave({fmt(1, 1, 8000, 16), chunk("data", Bytes(320, 1), 0xFFFFFFFF)}), 8000, 1, 160, 160, 0, true, ""},
      {"8-bit", wave({fmt(1, 1, 8000, 8), chunk("data", samples)}), 0, 0, 0, 0, 0, false, "unsupported sample format: 8-bit PCM"},
      {"float", wave({fmt(3, 2, 48000, 32), chunk("data", samples)}), 0, 0, 0, 0, 0, false, "unsupported sample format: 32-bit float"},
      {"A-law", wave({fmt(6, 1, 8000, 8), chunk("data", samples)}), 0, 0, 0, 0, 0, false, "unsupported sample format: A-law"},
      {"extensible float", wave({extensible(3, 2, 48000, 32), chunk("data", samples)}), 0, 0, 0, 0, 0, false, "32-bit float"},
      {"three channels", wave({fmt(1, 3, 48000, 16), chunk("data", samples)}), 0, 0, 0, 0, 0, false, "3 channels: only 1 or 2"},
      {"96 kHz", wave({fmt(1, 2, 96000, 16), chunk("data", samples)}), 0, 0, 0, 0, 0, false, "rate 96000 Hz"},
      {"no data chunk", wave({fmt(1, 2, 48000, 16)}), 0, 0, 0, 0, 0, false, "no 'data' chunk"},
      {"data before fmt", wave({chunk("data", samples), fmt(1, 2, 48000, 16)}), 0, 0, 0, 0, 0, false, "'data' chunk before the 'fmt ' chunk"},
      {"short fmt", wave({chunk("fmt ", Bytes(8, 1)), chunk("data", samples)}), 0, 0, 0, 0, 0, false, "'fmt ' chunk of 8 bytes"},
      {"not RIFF", str("OggS and more bytes"), 0, 0, 0, 0, 0, false, "not a RIFF/WAVE file"},
      {"empty", {}, 0, 0, 0, 0, 0, false, "empty file"},
      {"no whole frame", wave({fmt(1, 2, 48000, 16), chunk("data", Bytes(3, 1))}), 0, 0, 0, 0, 0, false, "no whole sample frame"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = t.file("in.wav");
    writeAll(path, c.file);
    PcmReader r;
    const bool opened = r.Open(path, nullptr);
    if (*c.error) {
      EXPECT_FALSE(opened);
      EXPECT_NE(r.Error().find(c.error), std::string::npos) << r.Error();
      continue;
    }
    ASSERT_TRUE(opened) << r.Error();
    EXPECT_EQ(std::make_tuple(r.Format().rate, r.Format().channels, r.Frames(), r.PacketFrames(), r.OddBytes(), r.DataSizeClamped()),
              std::make_tuple(c.rate, c.channels, c.frames, c.packetFrames, c.oddBytes, c.clamped));
    // Every packet whole, the frames behind the last whole packet left out.
    unsigned long long frames = 0;
    long long next = 0;
    for (Packet* p; (p = r.NextPacket(nullptr)) != nullptr;) {
      ASSERT_NE(p, PacketError()) << r.Error();
      EXPECT_EQ(p->Size(), static_cast<int>(r.PerPacket() * 2 * c.channels));
      EXPECT_EQ(p->pts, next);
      next = p->pts + p->duration;
      frames += r.PerPacket();
      kiv::base::Release(p);
    }
    EXPECT_EQ(frames, c.packetFrames);
    EXPECT_EQ(next, static_cast<long long>(frames * 1000000000ull / c.rate));
  }
}

TEST(PcmReader, RawFormatIsNamedByTheUser) {
  struct Case {
    const char* text;
    unsigned rate, channels;
    const char* error;
  } cases[] = {
      {"s16le:16000:1", 16000, 1, ""},
      {"f32le:48000:2", 0, 0, "sample format 'f32le' is not supported"},
      {"s16le:0:2", 0, 0, "rate '0'"},
      {"s16le:65536:2", 0, 0, "rate '65536'"},
      {"s16le:4800x:2", 0, 0, "rate '4800x'"},
      {"s16le:48000:3", 0, 0, "only 1 or 2 channels"},
      {"s16le:48000:2:1", 0, 0, "wants s16le:RATE:CHANNELS"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    PcmFormat f;
    std::string why;
    const bool ok = ParsePcmFormat(c.text, f, why);
    EXPECT_EQ(ok, !*c.error);
    EXPECT_TRUE(ok ? f.rate == c.rate && f.channels == c.channels : why.find(c.error) != std::string::npos) << why;
  }
  // 20 ms a packet, or 1024 frames where 20 ms is no whole number of them.
  EXPECT_EQ(PcmReader::FramesPerPacket(44100), 882u);
  EXPECT_EQ(PcmReader::FramesPerPacket(11025), 1024u);
}

TEST(Srt, CuesParseOrFailWithTheLine) {
  struct Case {
    const char* name;
    std::string text;
    std::vector<SrtCue> cues;
    const char* error;
  } cases[] = {
      {"numbered", "1\n00:00:01,000 --> 00:00:02,500\nHello\n\n2\n00:00:03,000 --> 00:00:04,000\nA\nB\n",
       {{1000, 2500, "Hello"}, {3000, 4000, "A\nB"}}, ""},
      {"BOM, CRLF, no numbers, dots, long hours",
       "\xEF\xBB\xBF" "00:00:00.250 --> 00:00:00.750\r\nx\r\n\r\n100:00:00,000 --> 100:00:01,000\r\ny\r\n",
       {{250, 750, "x"}, {360000000, 360001000, "y"}}, ""},
      {"blank lines around", "\n\n1\n00:00:01,000 --> 00:00:02,000\nz\n\n\n", {{1000, 2000, "z"}}, ""},
      {"a cue without text", "1\n00:00:01,000 --> 00:00:02,000\n\n2\n00:00:03,000 --> 00:00:04,000\nq\n",
       {{1000, 2000, ""}, {3000, 4000, "q"}}, ""},
      {"no timing line", "1\nHello\n", {}, "line 1: no timing line"},
      {"bad minutes", "1\n00:61:00,000 --> 00:62:00,000\nx\n", {}, "line 2: '00:61:00,000 --> 00:62:00,000' is no SubRip"},
      {"out of order", "1\n00:00:05,000 --> 00:00:06,000\na\n\n2\n00:00:01,000 --> 00:00:02,000\nb\n", {}, "line 6: the cue starts before"},
      {"no cue", "\n \n", {}, "no cue in it"},
      {"a cue too long", "1\n00:00:01,000 --> 00:00:02,000\n" + std::string(70000, 'x') + "\n", {}, "longer than a text sample holds"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<SrtCue> cues;
    std::string why;
    const bool ok = ParseSrt(c.text, cues, why);
    EXPECT_EQ(ok, !*c.error) << why;
    if (!ok) {
      EXPECT_NE(why.find(c.error), std::string::npos) << why;
      continue;
    }
    EXPECT_EQ(show(cues), show(c.cues));
  }
}

TEST(Srt, SamplesCoverTheTimeLine) {
  struct Case {
    const char* name;
    std::vector<SrtCue> cues;
    std::vector<TextSample> samples;
    long long dropped;
  } cases[] = {
      {"gaps before and between", {{500, 1000, "a"}, {1200, 1800, "b"}},
       {{0, 500, ""}, {500, 1000, "a"}, {1000, 1200, ""}, {1200, 1800, "b"}, {1800, 1800, ""}}, 0},
      {"back to back from 0", {{0, 1000, "a"}, {1000, 2000, "b"}}, {{0, 1000, "a"}, {1000, 2000, "b"}, {2000, 2000, ""}}, 0},
      {"an overlap is cut at the next start", {{0, 1500, "a"}, {1000, 2000, "b"}},
       {{0, 1000, "a"}, {1000, 2000, "b"}, {2000, 2000, ""}}, 0},
      {"two cues at one time: the first lasts none", {{0, 1000, "a"}, {0, 2000, "b"}}, {{0, 2000, "b"}, {2000, 2000, ""}}, 1},
      {"a cue that ends where it starts", {{0, 1000, "a"}, {1500, 1500, "b"}, {2000, 2500, "c"}},
       {{0, 1000, "a"}, {1000, 2000, ""}, {2000, 2500, "c"}, {2500, 2500, ""}}, 1},
      {"no cue lasts", {{1000, 1000, "a"}}, {}, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    long long dropped = -1;
    const std::vector<TextSample> s = SamplesOfCues(c.cues, dropped);
    EXPECT_EQ(dropped, c.dropped);
    EXPECT_EQ(show(s), show(c.samples));
  }
}

// (Written back through play and read by ffmpeg, and refused at the command line: the record tests.)
TEST(Srt, PacketsAreTextSamplesStampedAtTheirEnd) {
  iotest::TempDir t;
  const std::string path = t.file("in.srt");
  writeAll(path, str("1\n00:00:00,500 --> 00:00:01,000\nHi\n\n2\n00:00:01,000 --> 00:00:03,000\n\xC3\x9C\n"));
  SrtReader r;
  ASSERT_TRUE(r.Open(path)) << r.Error();
  struct Want {
    Bytes payload;
    long long pts, duration;
  } want[] = {{{0, 0}, 500, 500}, {{0, 2, 'H', 'i'}, 1000, 500}, {{0, 2, 0xC3, 0x9C}, 3000, 2000}, {{0, 0}, 3000, 0}};
  for (const Want& w : want) {
    Packet* p = r.NextPacket(nullptr);
    ASSERT_TRUE(p && p != PacketError());
    EXPECT_EQ(std::make_tuple(Bytes(p->Data(), p->Data() + p->Size()), p->pts, p->duration),
              std::make_tuple(w.payload, w.pts * 1000000, w.duration * 1000000));
    kiv::base::Release(p);
  }
  EXPECT_EQ(r.NextPacket(nullptr), nullptr);
  // 4 samples over 3 s: two a second are planned for.
  EXPECT_EQ(r.Rate().Num(), 2);
}

// Valid streams cut anywhere and random bytes: every reader ends with packets or a reason, and reads
// nothing outside what it holds (the sanitizers watch).
TEST(PcmJpegTextReaders, SurviveTruncatedAndRandomInput) {
  iotest::TempDir t;
  const std::string path = t.file("damaged");
  const Bytes jpeg = cat({picture(64, 48), picture(64, 48)});
  const Bytes wav = wave({fmt(1, 2, 8000, 16), chunk("data", Bytes(1280, 3))});
  const Bytes srt = str("1\n00:00:01,000 --> 00:00:02,000\nHello\n\n2\n00:00:02,500 --> 00:00:03,000\nWorld\n");
  std::mt19937 rng(12345);
  std::vector<Bytes> inputs;
  for (const Bytes* whole : {&jpeg, &wav, &srt})
    for (size_t n = 0; n < whole->size(); n += 1 + n / 8) inputs.emplace_back(whole->begin(), whole->begin() + static_cast<long>(n));
  for (int k = 0; k < 200; ++k) {
    Bytes b(static_cast<size_t>(rng() % 600));
    for (unsigned char& c : b) c = static_cast<unsigned char>(rng() % 4 == 0 ? 0xFF : rng());
    // Some start as a picture or a WAVE file would, so that the readers get past their first test.
    if (k % 3 == 0 && b.size() > 2) b[0] = 0xFF, b[1] = 0xD8;
    if (k % 3 == 1 && b.size() > 12) std::copy(wav.begin(), wav.begin() + 12, b.begin());
    inputs.push_back(b);
  }
  long long packets = 0, failures = 0;
  for (const Bytes& in : inputs) {
    writeAll(path, in);
    {
      MjpegReader r(7);
      JpegPicture p;
      if (r.Open(path))
        for (int i = 0; i < 1000 && r.Next(p); ++i) ++packets;
      failures += r.Failed();
    }
    const PcmFormat raw{8000, 2};
    for (const PcmFormat* f : {static_cast<const PcmFormat*>(nullptr), &raw}) {
      PcmReader r;
      if (r.Open(path, f))
        for (Packet* p; (p = r.NextPacket(nullptr)) != nullptr && p != PacketError();) {
          kiv::base::Release(p);
          ++packets;
        }
      failures += r.Failed();
    }
    SrtReader s;
    if (s.Open(path))
      for (Packet* p; (p = s.NextPacket(nullptr)) != nullptr && p != PacketError();) {
        kiv::base::Release(p);
        ++packets;
      }
  }
  // Both ends were reached: whole prefixes gave packets, damage gave reasons.
  EXPECT_GT(packets, 0);
  EXPECT_GT(failures, 0);
}

}  // namespace
