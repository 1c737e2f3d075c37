// H.265 streams that libx265 makes at test time, recorded alone and with AAC through the command-line
// host, judged by ffprobe and ffmpeg, and played back; HEVC files that ffmpeg writes, played.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/GeneratedMedia.h"
#include "tests/ToolRun.h"

namespace {

using generated::Decoded;
using generated::Stream;

// ffprobe's fields of the first stream of a kind, frames counted by decoding.
Fields ProbeFirst(const std::string& file, const char* kind, const std::string& input = "") {
  std::istringstream out(Capture("ffprobe -v error " + input + " -count_frames -select_streams " + kind +
                                 ":0 -show_entries stream=codec_name,codec_tag_string,width,height,r_frame_rate,"
                                 "nb_read_frames,duration -of default=nw=1 '" + file + "' 2>/dev/null"));
  Fields f;
  for (std::string line; std::getline(out, line);) {
    const size_t eq = line.find('=');
    if (eq != std::string::npos) f[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return f;
}

// The NAL units of an Annex-B file, without start codes.
std::vector<std::string> Units(const std::string& bytes) {
  std::vector<std::string> units;
  size_t at = bytes.find(std::string("\0\0\1", 3));
  while (at != std::string::npos) {
    const size_t begin = at + 3;
    size_t next = bytes.find(std::string("\0\0\1", 3), begin);
    size_t end = next == std::string::npos ? bytes.size() : next;
    while (end > begin && bytes[end - 1] == 0) --end;
    units.push_back(bytes.substr(begin, end - begin));
    at = next;
  }
  return units;
}

int NalType(const std::string& unit) { return unit.empty() ? -1 : (static_cast<unsigned char>(unit[0]) >> 1) & 63; }

class HevcRecord : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = generated::ScratchDir("bw_hevc_", why_);
    if (dir_.empty()) return;
    if (!Shell("ffmpeg -hide_banner -encoders | grep -q libx265")) {
      why_ = "ffmpeg has no libx265";
      return;
    }
    why_ = "ffmpeg cannot make the H.265 and AAC sources";
    const std::string x265 = " -pix_fmt yuv420p -c:v libx265 -x265-params log-level=none:info=0";
    // An odd size, so that the picture size comes through the conformance window.
    ready_ = Make(plain_, "plain.h265", "testsrc2=size=162x122:rate=30 -frames:v 45", x265 + ":bframes=0", false) &&
             Make(bframes_, "bframes.h265", "testsrc2=size=160x120:rate=30 -frames:v 60", x265, true) &&
             Make(sei_, "sei.h265", "testsrc2=size=160x120:rate=30 -frames:v 20",
                  " -pix_fmt yuv420p -c:v libx265 -x265-params log-level=none:bframes=0", false) &&
             Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000 -t 2 -ac 2 -b:a 96k "
                   "-c:a aac -f adts " + dir_ + "/stereo48.aac");
    if (ready_) aacMd5_ = generated::Decode(dir_, dir_ + "/stereo48.aac", false, true, false).audio;
  }
  static void TearDownTestSuite() { Shell("rm -rf " + dir_); }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << why_;
  }
  static bool Make(Stream& s, const std::string& file, const std::string& source, const std::string& codec, bool b) {
    s.path = dir_ + "/" + file;
    if (!Shell("ffmpeg -nostdin -v error -y -f lavfi -i " + source + codec + " -f hevc " + s.path)) return false;
    const Fields f = ProbeFirst(s.path, "v");
    s.frames = Count(f, "nb_read_frames");
    s.width = Count(f, "width");
    s.height = Count(f, "height");
    s.bframes = Capture("ffprobe -v error -show_entries frame=pict_type -of csv=p=0 " + s.path).find('B') != std::string::npos;
    s.md5 = generated::Decode(dir_, s.path, true, false, false).video;
    return s.frames > 0 && s.bframes == b && !s.md5.empty();
  }
  // What ffmpeg decodes of the video (and audio) of a file. A B-frame track's composition offsets
  // are a fixed pattern that puts its last picture behind the edit list, which ffmpeg obeys: the
  // edit list is left aside to see every picture.
  static Decoded DecodeFile(const std::string& file, bool audio, bool bframes) {
    if (!bframes) return generated::Decode(dir_, file, true, audio, false);
    const std::string v = dir_ + "/dv", a = dir_ + "/da", e = dir_ + "/de";
    std::istringstream out(Capture("ffmpeg -nostdin -v error -xerror -ignore_editlist 1 -i " + file +
                                   " -map 0:v -fps_mode passthrough -f rawvideo -y " + v +
                                   (audio ? " -map 0:a -f s16le -y " + a : std::string()) + " 2>" + e +
                                   "; echo $?; md5sum <" + v + (audio ? "; md5sum <" + a : std::string())));
    Decoded d;
    std::string line;
    if (std::getline(out, line)) d.status = std::atoi(line.c_str());
    if (std::getline(out, line)) d.video = line.substr(0, 32);
    if (audio && std::getline(out, line)) d.audio = line.substr(0, 32);
    std::istringstream err(ReadWhole(e));
    while (std::getline(err, line))
      if (line.find("non monotonically increasing dts to muxer") == std::string::npos) d.errors += line + "\n";
    Shell("rm -f " + v + " " + a + " " + e);
    return d;
  }

  static std::string dir_, why_, aacMd5_;
  static bool ready_;
  static Stream plain_, bframes_, sei_;
};
std::string HevcRecord::dir_, HevcRecord::why_, HevcRecord::aacMd5_;
bool HevcRecord::ready_ = false;
Stream HevcRecord::plain_, HevcRecord::bframes_, HevcRecord::sei_;

TEST_F(HevcRecord, AloneAndWithAacToMovAndMp4DecodeAsTheSourceAndPlayBack) {
  for (const Stream* v : {&plain_, &bframes_}) {
    for (bool audio : {false, true}) {
      for (const char* format : {"mov", "mp4"}) {
        const std::string name = std::string(v->bframes ? "b" : "p") + (audio ? "a." : ".") + format;
        SCOPED_TRACE(name);
        const std::string out = dir_ + "/" + name;
        const ToolResult r = RunTool("record -o " + out + " --video " + v->path +
                                     (audio ? " --audio " + dir_ + "/stereo48.aac" : std::string()));
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err.find("warning"), std::string::npos) << r.err;

        const Fields f = ProbeFirst(out, "v");
        EXPECT_EQ(std::make_tuple(f.count("codec_name") ? f.at("codec_name") : "", Count(f, "width"), Count(f, "height")),
                  std::make_tuple(std::string("hevc"), v->width, v->height));
        EXPECT_EQ(f.count("r_frame_rate") ? f.at("r_frame_rate") : "", "30/1");
        EXPECT_NEAR(generated::Seconds(f), v->frames / 30.0, 1e-3);
        EXPECT_EQ(Count(ProbeFirst(out, "v", "-ignore_editlist 1"), "nb_read_frames"), v->frames);
        // With B-frames ffmpeg drops the one picture that the fixed composition pattern puts behind
        // the edit list.
        EXPECT_EQ(Count(f, "nb_read_frames"), v->frames - (v->bframes ? 1 : 0));
        const Decoded d = DecodeFile(out, audio, v->bframes);
        EXPECT_EQ(std::make_tuple(d.status, d.errors, d.video), std::make_tuple(0, std::string(), v->md5));
        if (audio) {
          EXPECT_EQ(d.audio, aacMd5_);
        }

        // Brands of the HEVC engine, whatever the flavour.
        const std::string head = ReadWhole(out).substr(0, 24);
        EXPECT_EQ(head.substr(4), std::string("ftypiso4\0\0\0\1iso4hvc1", 20));

        // Played back: the parameter sets of the track, then every picture as it came.
        const std::string back = dir_ + "/back_" + name + ".h265";
        const ToolResult p = RunTool("play " + out + " --video-out " + back);
        EXPECT_EQ(p.status, 0) << p.err;
        EXPECT_EQ(generated::Decode(dir_, back, true, false, false).video, v->md5);
        EXPECT_NE(p.out.find("video: hevc " + std::to_string(v->width) + "x" + std::to_string(v->height) + ", " +
                             std::to_string(v->frames) + " packets"),
                  std::string::npos)
            << p.out;
      }
    }
  }
}

TEST_F(HevcRecord, GroupedChunksTablesOnFileAndSpilledListsDecodeAsTheSource) {
  const std::string plain = dir_ + "/tf_plain.mp4", spilled = dir_ + "/tf_spilled.mp4";
  const std::string args = " --video " + bframes_.path + " --audio " + dir_ + "/stereo48.aac --set videosampleperchunk=4";
  ASSERT_EQ(RunTool("record -o " + plain + args).status, 0);
  const ToolResult r = RunTool("record -o " + spilled + args + " --spill --table-files --tmp " + dir_);
  ASSERT_EQ(r.status, 0) << r.err;
  for (const std::string& file : {plain, spilled}) {
    SCOPED_TRACE(file);
    EXPECT_EQ(Count(ProbeFirst(file, "v", "-ignore_editlist 1"), "nb_read_frames"), bframes_.frames);
    const Decoded d = DecodeFile(file, true, true);
    EXPECT_EQ(std::make_tuple(d.status, d.errors, d.video, d.audio), std::make_tuple(0, std::string(), bframes_.md5, aacMd5_));
  }
}

TEST_F(HevcRecord, TheSampleDescriptionCarriesTheStreamsParameterSetsForFfmpeg) {
  const std::string out = dir_ + "/sets.mp4", annexB = dir_ + "/sets.h265";
  ASSERT_EQ(RunTool("record -o " + out + " --video " + plain_.path).status, 0);
  // ffmpeg puts the sets of the track's hvcC in front of the first picture.
  ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -i " + out + " -c:v copy -bsf:v hevc_mp4toannexb -f hevc " + annexB));
  const std::vector<std::string> source = Units(ReadWhole(plain_.path)), copied = Units(ReadWhole(annexB));
  ASSERT_GE(source.size(), 4u);
  ASSERT_GE(copied.size(), 4u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(NalType(copied[i]), 32 + static_cast<int>(i));
    EXPECT_EQ(copied[i], source[i]) << "parameter set " << i;
  }
  // The sets stand in the file once: the samples do not repeat them.
  size_t sets = 0;
  for (const std::string& u : copied) sets += NalType(u) >= 32 && NalType(u) <= 34;
  EXPECT_EQ(sets, 3u);
}

TEST_F(HevcRecord, PicturesOfSeveralUnitsAreWarnedOfAndStillComeBackThroughPlay) {
  const std::string out = dir_ + "/sei.mov", back = dir_ + "/sei_back.h265";
  const ToolResult r = RunTool("record -o " + out + " --video " + sei_.path);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("warning: " + sei_.path + ": 1 pictures (the first is number 0) hold more than one NAL unit"),
            std::string::npos)
      << r.err;
  ASSERT_EQ(RunTool("play " + out + " --video-out " + back).status, 0);
  EXPECT_EQ(generated::Decode(dir_, back, true, false, false).video, sei_.md5);
}

TEST_F(HevcRecord, InputErrorsHaveMessagesAndStatuses) {
  // A stream without its VPS, an H.264 stream and text under H.265 names, an empty file.
  std::string noVps;
  const std::string whole = ReadWhole(plain_.path);
  for (const std::string& u : Units(whole))
    if (NalType(u) != 32) noVps += std::string("\0\0\0\1", 4) + u;
  const struct {
    const char* name;
    std::string bytes;
    int status;
    std::string says;
  } cases[] = {
      {"empty.h265", "", 1, "empty.h265: empty file"},
      {"novps.hevc", noVps, 1, "novps.hevc: no VPS in the stream"},
      {"text.h265", std::string(64, 't'), 1, "not an H.265 Annex-B stream: no start code"},
      {"avc.h265", std::string("\0\0\0\1\x67\x42\0\x0a\0\0\0\1\x68\xce", 14), 1, "not an H.265 stream: first NAL unit header 0x6742"},
      {"clip.mkv", "x", 2, "is not an H.264 elementary stream (.h264, .264), an H.265 one (.h265, .hevc) or Motion-JPEG"},
  };
  for (const auto& c : cases) {
    const std::string path = dir_ + "/" + c.name;
    std::ofstream(path, std::ios::binary) << c.bytes;
    const ToolResult r = RunTool("record -o " + dir_ + "/err.mov --video " + path);
    EXPECT_EQ(r.status, c.status) << c.name << ": " << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << c.name << ": " << r.err;
  }
}

// HEVC files that ffmpeg writes, played through the demuxer element.
TEST_F(HevcRecord, FfmpegsHevcFilesPlayWithinTheTracksLimits) {
  const struct {
    const char* file;
    const char* args;
    int status;
    std::string says;  // on the standard output for status 0, the error output otherwise
  } cases[] = {
      // Every sample one unit: all packets come. ffmpeg marks its hvcC arrays complete, a flag the
      // record does not expect: the parameter sets are not read from them.
      {"ff_hvc1.mp4", "-tag:v hvc1", 0, "video: hevc 162x122, 45 packets (1 key)"},
      {"ff_hvc1.mov", "-tag:v hvc1", 0, "video: hevc 162x122, 45 packets (1 key)"},
      // A sample entry without a box class of its own: the file does not open.
      {"ff_hev1.mp4", "-tag:v hev1", 1, "cannot open it as a movie the plug-in plays"},
      {"ff_hev1.mov", "-tag:v hev1", 1, "cannot open it as a movie the plug-in plays"},
      // Copied from a stream with an SEI in front of its first picture: that sample holds two units,
      // each with its length, and the track refuses it.
      {"ff_sei.mp4", "", 1, "reading stopped with an error after 0 packets"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string out = dir_ + "/" + c.file;
    const std::string from = std::string(c.file) == "ff_sei.mp4" ? sei_.path + " -c:v copy -tag:v hvc1"
                                                                   : plain_.path + " -c:v libx265 -x265-params log-level=none";
    ASSERT_TRUE(Shell("ffmpeg -nostdin -v error -y -i " + from + " " + c.args + " " + out));
    const ToolResult r = RunTool("play " + out + " --video-out " + dir_ + "/ff_back.h265");
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_NE((c.status == 0 ? r.out : r.err).find(c.says), std::string::npos) << r.out << r.err;
  }
}

}  // namespace
