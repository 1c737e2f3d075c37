// Fragmented recordings in a real browser: the system's chromium, headless, driven by
// tests/browser/play.js (npm's playwright-core, no browser of its own). Each file plays from a <video>
// element to its end, and again through a MediaSource SourceBuffer fed the init segment and then each
// moof and mdat pair. The ctest label "browser" runs these; scripts/test.sh installs what they need.
//
// The <video> element reads a whole file with chromium's own copy of ffmpeg's mov reader, which takes
// each traf's tfdt only once it has read it: with tfdt behind trun (the layout these files have), it
// places fragments too early and drops pictures, though it plays to the end without an error. The
// test shows that box: the same bytes with tfdt in front of trun play every picture.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "tests/FragmentOracles.h"

namespace {

using namespace fragoracle;
using nlohmann::json;

struct Played {
  json result;
  std::string raw;
};

Played play(const std::string& file) {
  const std::string script = std::string(BOXWEAVE_SOURCE_DIR) + "/tests/browser/play.js";
  Played p;
  p.raw = Capture("timeout 240 node '" + script + "' '" + file + "' 2>&1");
  const size_t brace = p.raw.rfind("\n{");
  const std::string last = brace == std::string::npos ? p.raw : p.raw.substr(brace + 1);
  p.result = json::parse(last, nullptr, false);
  return p;
}

struct BrowserCase {
  const char* name;
  const char* video;  // ffmpeg's arguments for the stream; "sample" for the bundled one
  const char* audio;
  const char* options;
};

class FragmentBrowser : public ::testing::TestWithParam<BrowserCase> {
 protected:
  void SetUp() override {
    if (!Shell("command -v chromium") || !Shell("command -v node"))
      GTEST_SKIP() << "chromium or node is not installed (scripts/test.sh installs them)";
    if (!Shell("test -d " + std::string(BOXWEAVE_SOURCE_DIR) + "/tests/browser/node_modules/playwright-core"))
      GTEST_SKIP() << "tests/browser has no playwright-core (scripts/test.sh runs npm install there)";
    dir = generated::ScratchDir("fmp4browser", why);
    if (dir.empty()) GTEST_SKIP() << why;
  }
  std::string dir, why;
};

TEST_P(FragmentBrowser, PlaysToTheEnd) {
  const BrowserCase& c = GetParam();
  const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples/";
  Source src;
  if (std::string(c.video) == "sample") {
    src.video = samples + "sample.h264";
    src.audio = samples + "sample.aac";
  } else {
    ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y " + std::string(c.video) + " -f h264 " + dir + "/v.h264"));
    ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y " + std::string(c.audio) + " -c:a aac -f adts " + dir + "/a.aac"));
    src.video = dir + "/v.h264";
    src.audio = dir + "/a.aac";
  }
  ASSERT_TRUE(src.learn());
  const std::string out = dir + "/" + c.name + ".mp4";
  const ToolResult r = RunTool("record -o '" + out + "' " + c.options + src.recordArgs());
  ASSERT_EQ(r.status, 0) << r.err;
  const long long pictures = static_cast<long long>(src.videoFrames.size());

  // Media Source: every picture, to the end, no error. The element: the same, once tfdt stands in
  // front of trun; as written, to the end without a decode error (the pictures it drops are noted).
  const Bytes bytes = Load(out);
  Save(out + ".tfdt-first.mp4", fragbytes::TfdtFirst(bytes));
  for (const std::string& file : {out, out + ".tfdt-first.mp4"}) {
    const Played p = play(file);
    ASSERT_FALSE(p.result.is_discarded()) << p.raw;
    const json& j = p.result;
    ASSERT_TRUE(j.value("supported", false)) << p.raw;
    for (const char* way : {"mse", "element"}) {
      EXPECT_EQ(j[way].value("how", ""), "ended") << way << "\n" << p.raw;
      EXPECT_TRUE(j[way]["error"].is_null()) << way << "\n" << p.raw;
    }
    EXPECT_EQ(j["mse"].value("frames", -1LL), pictures) << p.raw;
    const long long elementPictures = j["element"].value("frames", -1LL);
    if (file != out) {
      EXPECT_EQ(elementPictures, pictures) << p.raw;
    } else if (elementPictures != pictures) {
      std::printf("note: <video> on the file as written decodes %lld of %lld pictures\n", elementPictures, pictures);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Recordings, FragmentBrowser,
    ::testing::Values(BrowserCase{"Sample", "sample", "", "--fragmented"},
                      BrowserCase{"BframesFlush1s",
                                  "-f lavfi -i testsrc2=size=160x120:rate=30 -pix_fmt yuv420p -c:v libx264 -frames:v 150 "
                                  "-bf 2 -g 30",
                                  "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=5 -ac 2",
                                  "--fragmented --flush --fragment-ms 1000"},
                      BrowserCase{"PlainGop",
                                  "-f lavfi -i testsrc2=size=160x120:rate=30 -pix_fmt yuv420p -c:v libx264 -frames:v 90 "
                                  "-bf 0 -g 15",
                                  "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=3 -ac 1",
                                  "--fragmented"}),
    [](const ::testing::TestParamInfo<BrowserCase>& i) { return std::string(i.param.name); });

}  // namespace
