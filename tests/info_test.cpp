// "boxweave info" on files of other tools: whole files of codecs we do not record are no damage, cut
// and overlong boxes are, and whatever bytes the file holds, the text is safe and the JSON valid.
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
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
    dir_ = std::string(::testing::TempDir()) + "/info" + std::to_string(::getpid());
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

TEST_F(Info, CutAndOverlongBoxesAreDamageNamedWithTheirPlace) {
  const std::string whole = bytes("mono.mp4");  // ftyp free mdat moov
  const size_t mdat = topBox(whole, "mdat"), moov = topBox(whole, "moov");
  ASSERT_TRUE(mdat != std::string::npos && moov != std::string::npos && mdat < moov);
  const uint32_t mdatSize = be32(whole, mdat), moovSize = be32(whole, moov);
  std::string inMoov = whole;  // moov's first child claims more than moov holds
  putBe32(inMoov, moov + 8, moovSize + 100);
  std::string inTrak = whole;  // a track claims more than moov holds
  const size_t trak = whole.find("trak", moov) - 4;
  putBe32(inTrak, trak, moovSize);
  const std::string at = " at offset ";
  const struct {
    const char* name;
    std::string bytes, says;
  } cases[] = {
      {"half.mp4", whole.substr(0, mdat + mdatSize / 2),
       "box 'mdat'" + at + std::to_string(mdat) + " claims " + std::to_string(mdatSize) + " bytes; the file holds " +
           std::to_string(mdatSize / 2) + " from there"},
      {"moovcut.mp4", whole.substr(0, whole.size() - 1),
       "box 'moov'" + at + std::to_string(moov) + " claims " + std::to_string(moovSize) + " bytes; the file holds " +
           std::to_string(moovSize - 1) + " from there"},
      {"header.mp4", whole.substr(0, moov + 5), "the file ends 5 bytes behind offset " + std::to_string(moov)},
      {"inmoov.mp4", inMoov,
       "box 'mvhd'" + at + std::to_string(moov + 8) + " claims " + std::to_string(moovSize + 100) +
           " bytes; its parent 'moov' holds " + std::to_string(moovSize - 8) + " from there"},
      {"intrak.mp4", inTrak, "box 'trak'" + at + std::to_string(trak) + " claims " + std::to_string(moovSize)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    write(c.name, c.bytes);
    const ToolResult text = RunTool("info " + path(c.name));
    EXPECT_EQ(text.status, 1);
    EXPECT_NE(text.out.find("ftyp"), std::string::npos) << "what could be read is printed";
    EXPECT_NE(text.err.find("is damaged or truncated: " + c.says), std::string::npos) << text.err;
    const ToolResult json = RunTool("info --json " + path(c.name));
    EXPECT_EQ(json.status, 1);
    const nlohmann::json doc = nlohmann::json::parse(json.out, nullptr, false);
    ASSERT_TRUE(doc.is_object()) << json.out.substr(0, 400);
    EXPECT_NE(doc.value("damage", "").find(c.says), std::string::npos) << doc.value("damage", "");
  }
  EXPECT_EQ(RunTool("info " + path("missing.mp4")).status, 1);
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
}

}  // namespace
