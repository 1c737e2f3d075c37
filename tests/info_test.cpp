// "boxweave info" on files of other tools: whole files of codecs we do not record are no damage, cut
// and overlong boxes are, and whatever bytes the file holds, the text is safe and the JSON valid.
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tests/ToolRun.h"

namespace {

uint32_t be32(const std::string& b, size_t at) {
  return static_cast<uint32_t>(static_cast<unsigned char>(b[at])) << 24 |
         static_cast<uint32_t>(static_cast<unsigned char>(b[at + 1])) << 16 |
         static_cast<uint32_t>(static_cast<unsigned char>(b[at + 2])) << 8 | static_cast<unsigned char>(b[at + 3]);
}
void putBe32(std::string& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + static_cast<size_t>(i)] = static_cast<char>(v >> (24 - 8 * i));
}
// Offset of the first top-level box with this code; npos when there is none.
size_t topBox(const std::string& b, const char* code) {
  for (size_t at = 0; at + 8 <= b.size() && be32(b, at) >= 8; at += be32(b, at))
    if (b.compare(at + 4, 4, code) == 0) return at;
  return std::string::npos;
}

const struct {
  const char *name, *args;
} kFiles[] = {
    {"frag.mp4", "-c:v libx264 -c:a aac -ac 2 -movflags frag_keyframe+empty_moov"},
    {"mono.mp4", "-c:v libx264 -c:a aac -ac 1"},
    {"mpeg4.mp4", "-c:v mpeg4 -c:a aac"},
    {"opus.mp4", "-vn -c:a libopus"},
};

class Info : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = boxtest::ProcessScratch() + "/info" + std::to_string(::getpid());
    Shell("mkdir -p " + dir_);
    for (const auto& f : kFiles)
      Shell("ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc=size=96x64:rate=25 -f lavfi -i "
            "sine=frequency=440:sample_rate=48000 -t 1 -pix_fmt yuv420p " +
            std::string(f.args) + " " + dir_ + "/" + f.name);
  }
  static void TearDownTestSuite() { Shell("rm -rf " + dir_); }
  static std::string path(const std::string& name) { return dir_ + "/" + name; }
  static std::string bytes(const std::string& name) {
    const std::string b = ReadWhole(path(name));
    if (b.size() < 1000) ADD_FAILURE() << "ffmpeg could not make " << name;
    return b;
  }
  static void write(const std::string& name, const std::string& b) {
    std::ofstream(path(name), std::ios::binary) << b;
  }
  static std::string dir_;
};
std::string Info::dir_;

TEST_F(Info, WholeFilesOfOtherToolsAreNoDamage) {
  const struct {
    const char* file;
    std::vector<const char*> summary;
  } cases[] = {
      // Five compatible brands, of which the parser reads four: a note, no damage.
      {"frag.mp4",
       {"boxes: ftyp moov moof mdat", "track 1: vide avc1 96x64, samples in 1 fragment\n",
        "track 2: soun mp4a 48000 Hz 2 ch, samples in 1 fragment\n"}},
      // Mono AAC: the channels come from the audio configuration, not from the sample entry's 2.
      {"mono.mp4", {"track 2: soun mp4a 48000 Hz 1 ch, 48 samples"}},
      {"mpeg4.mp4", {"track 1: vide unsupported codec 'mp4v', 25 samples", "soun mp4a 48000 Hz 1 ch"}},
      {"opus.mp4", {"track 1: soun unsupported codec 'Opus'"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    if (bytes(c.file).empty()) continue;
    const ToolResult text = RunTool("info " + path(c.file));
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out.rfind("ftyp offset=0 size=", 0), 0u) << text.out;
    EXPECT_EQ(text.err.find("damaged"), std::string::npos) << text.err;
    const ToolResult summary = RunTool("info --summary " + path(c.file));
    EXPECT_EQ(summary.status, 0) << summary.err;
    for (const char* line : c.summary) EXPECT_NE(summary.out.find(line), std::string::npos) << line << "\n" << summary.out;
    const ToolResult json = RunTool("info --json " + path(c.file));
    EXPECT_EQ(json.status, 0) << json.err;
    const nlohmann::json doc = nlohmann::json::parse(json.out, nullptr, false);
    ASSERT_FALSE(doc.is_discarded()) << json.out.substr(0, 400);
    EXPECT_FALSE(doc.contains("damage")) << doc["damage"];
    EXPECT_EQ(doc["boxes"][0]["type"], "ftyp");
  }
  // The fifth brand is what the parser complains of.
  const ToolResult frag = RunTool("info " + path("frag.mp4"));
  EXPECT_NE(frag.err.find("boxweave: note: ftyp"), std::string::npos) << frag.err;
  const nlohmann::json doc = nlohmann::json::parse(RunTool("info --json " + path("frag.mp4")).out, nullptr, false);
  ASSERT_TRUE(doc.is_object());
  EXPECT_FALSE(doc["notes"].empty());
  // From level I on, the parser's own lines are shown as they are, with their place in the source.
  EXPECT_EQ(frag.err.find(":\t"), std::string::npos) << frag.err;
  EXPECT_NE(RunTool("--log-level I info " + path("frag.mp4")).err.find(":\tftyp,"), std::string::npos);
}

TEST_F(Info, BytesOfTheFileReachNoTerminalRawAndTheJsonStaysValid) {
  std::string b = bytes("mono.mp4");
  // Top-level boxes with codes of control bytes, of Latin-1 bytes and of a lone UTF-8 lead byte.
  for (const std::string& code : {std::string("\x1b[2J"), std::string("\xa9too"), std::string("a\"\\\xc3")})
    b += std::string("\0\0\0\x08", 4) + code;
  write("codes.mp4", b);
  const ToolResult text = RunTool("info " + path("codes.mp4"));
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out.find('\x1b'), std::string::npos);
  for (const char* shown : {"\n\\x1b[2J offset=", "\n\\xa9too offset=", "\na\"\\x5c\\xc3 offset="})
    EXPECT_NE(text.out.find(shown), std::string::npos) << shown;
  const ToolResult summary = RunTool("info --summary " + path("codes.mp4"));
  EXPECT_NE(summary.out.find("moov \\x1b[2J \\xa9too"), std::string::npos) << summary.out;
  const ToolResult json = RunTool("info --json " + path("codes.mp4"));
  const nlohmann::json doc = nlohmann::json::parse(json.out, nullptr, false);
  ASSERT_TRUE(doc.is_object()) << json.out.substr(0, 400);
  const auto& boxes = doc["boxes"];
  ASSERT_GE(boxes.size(), 3u);
  EXPECT_EQ(boxes[boxes.size() - 3]["type"], "\x1b[2J");
  EXPECT_EQ(boxes[boxes.size() - 2]["type"], "\xc2\xa9too");
  EXPECT_EQ(boxes[boxes.size() - 1]["type"], "a\"\\\xc3\x83");
  // The verdict names such a box escaped too, in the text and in the JSON.
  write("codescut.mp4", b + std::string("\0\0\x01\0\x1b[2J", 8));
  const ToolResult cut = RunTool("info " + path("codescut.mp4"));
  EXPECT_EQ(cut.status, 1);
  EXPECT_NE(cut.err.find(": damaged or truncated: box '\\x1b[2J' at offset"), std::string::npos) << cut.err;
  EXPECT_EQ(cut.err.find('\x1b'), std::string::npos) << cut.err;
  const nlohmann::json cutDoc = nlohmann::json::parse(RunTool("info --json " + path("codescut.mp4")).out, nullptr, false);
  ASSERT_TRUE(cutDoc.is_object());
  EXPECT_NE(cutDoc.value("damage", "").find("'\\x1b[2J'"), std::string::npos);
}

// Whatever is wrong with the file, the last line of the error stream says it once, in every mode; the
// JSON carries it as "damage"; what could be read is printed all the same.
TEST_F(Info, BadFilesEndWithOneLineSayingWhy) {
  const std::string whole = bytes("mono.mp4");  // ftyp free mdat moov
  const size_t mdat = topBox(whole, "mdat"), moov = topBox(whole, "moov");
  ASSERT_TRUE(mdat != std::string::npos && moov != std::string::npos && mdat < moov);
  const uint32_t mdatSize = be32(whole, mdat), moovSize = be32(whole, moov);
  std::string noise(4096, '\0');
  uint32_t x = 2463534242u;  // xorshift: the same noise every run
  for (char& c : noise) {
    x ^= x << 13, x ^= x >> 17, x ^= x << 5;
    c = static_cast<char>(x);
  }
  std::string nested;  // moov in moov, ten thousand deep: whole, but deeper than any reader goes
  for (int i = 0; i < 10000; ++i) nested += std::string("\0\0\0\0moov", 8);
  for (size_t i = 0; i < 10000; ++i) putBe32(nested, 8 * i, static_cast<uint32_t>(nested.size() - 8 * i));
  const std::string frag = bytes("frag.mp4");
  const size_t fragMoov = topBox(frag, "moov");
  ASSERT_NE(fragMoov, std::string::npos);
  const std::string segment = frag.substr(0, fragMoov) + frag.substr(fragMoov + be32(frag, fragMoov));
  const std::string huge = whole.substr(0, moov) + std::string("\0\0\0\x01mdat\xff\xff\xff\xff\xff\xff\xff\xf0", 16);
  const std::string tiny = whole.substr(0, moov) + std::string("\0\0\0\x03moov", 8) + whole.substr(moov);
  std::string inMoov = whole;  // moov's first child claims more than moov holds
  putBe32(inMoov, moov + 8, moovSize + 100);
  std::string inTrak = whole;  // a track claims more than moov holds
  const size_t trak = whole.find("trak", moov) - 4;
  putBe32(inTrak, trak, moovSize);
  Shell("rm -f " + path("fifo") + " && mkfifo " + path("fifo"));
  const std::string noMovie = "not a movie file: no box could be read", damaged = "damaged or truncated: box '";
  const struct {
    std::string file;
    std::optional<std::string> bytes;  // written to file first; none: the path as it is
    int status;
    std::string says;  // the start of the last line's verdict; empty: no verdict
  } cases[] = {
      {path("empty.mp4"), "", 1, noMovie},
      {path("zeros.mp4"), std::string(4096, '\0'), 1, noMovie},
      {path("noise.mp4"), noise, 1, noMovie},
      {"/dev/null", std::nullopt, 1, "not a movie file: a character device, not a regular file"},
      {path("fifo"), std::nullopt, 1, "not a movie file: a FIFO, not a regular file"},
      {dir_, std::nullopt, 1, "not a movie file: a directory, not a regular file"},
      {path("missing.mp4"), std::nullopt, 1, "cannot open: No such file or directory"},
      {path("lost.mp4"), whole.substr(0, moov), 1, "no moov: the recording was cut off before it was closed"},
      {path("segment.mp4"), segment, 1, "no moov: fragments without the movie they belong to"},
      {path("huge.mp4"), huge, 1,
       damaged + "mdat' at offset " + std::to_string(moov) + " claims 18446744073709551600 bytes; the file holds 16 from there"},
      {path("tiny.mp4"), tiny, 1, damaged + "moov' at offset " + std::to_string(moov) + " claims 3 bytes, less than its header"},
      {path("half.mp4"), whole.substr(0, mdat + mdatSize / 2), 1,
       damaged + "mdat' at offset " + std::to_string(mdat) + " claims " + std::to_string(mdatSize) +
           " bytes; the file holds " + std::to_string(mdatSize / 2) + " from there"},
      {path("header.mp4"), whole.substr(0, moov + 5), 1,
       "damaged or truncated: the file ends 5 bytes behind offset " + std::to_string(moov)},
      {path("inmoov.mp4"), inMoov, 1,
       damaged + "mvhd' at offset " + std::to_string(moov + 8) + " claims " + std::to_string(moovSize + 100) +
           " bytes; its parent 'moov' holds " + std::to_string(moovSize - 8) + " from there"},
      {path("intrak.mp4"), inTrak, 1, damaged + "trak' at offset " + std::to_string(trak) + " claims " + std::to_string(moovSize)},
      {path("nested.mp4"), nested, 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    if (c.bytes) std::ofstream(c.file, std::ios::binary) << *c.bytes;
    for (const char* mode : {"", "--summary ", "--json "}) {
      const ToolResult r = RunTool(std::string("info ") + mode + c.file);
      EXPECT_EQ(r.status, c.status) << mode << r.err;
      if (c.says.empty()) {
        EXPECT_EQ(r.err.find("boxweave: " + c.file), std::string::npos) << r.err;
        continue;
      }
      const std::string line = "boxweave: " + c.file + ": " + c.says;
      const size_t at = r.err.find(line);
      EXPECT_TRUE(at != std::string::npos && r.err.find('\n', at) + 1 == r.err.size()) << mode << r.err;
      if (c.says.rfind("damaged", 0) == 0 && !*mode) {
        EXPECT_NE(r.out.find("ftyp"), std::string::npos) << "what could be read is printed";
        EXPECT_EQ(r.err.find("note:"), std::string::npos) << "the parser restating the damage\n" << r.err;
      }
      if (std::string(mode) == "--json " && !r.out.empty()) {
        const nlohmann::json doc = nlohmann::json::parse(r.out, nullptr, false);
        ASSERT_TRUE(doc.is_object()) << r.out.substr(0, 400);
        EXPECT_EQ(doc.value("damage", "").rfind(c.says, 0), 0u) << doc.value("damage", "");
      }
    }
  }
}

}  // namespace
