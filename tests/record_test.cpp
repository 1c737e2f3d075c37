// What the command-line host's recorder says about input it cannot use, for every kind it reads.
// (Recordings themselves are checked by ffmpeg in record_generated_test.)
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/ToolRun.h"
#include "tools/PcmReader.h"

TEST(Record, InputErrorsHaveMessagesAndStatusesAndWriteNothing) {
  const std::string samples = std::string(BOXWEAVE_SOURCE_DIR) + "/samples", d = boxtest::ProcessScratch() + "/record";
  ASSERT_TRUE(Shell("rm -rf " + d + " && mkdir -p " + d));
  const auto write = [&d](const char* name, const std::string& bytes) {
    std::ofstream(d + "/" + name, std::ios::binary) << bytes;
    return " " + d + "/" + name;
  };
  // A file that is not Annex-B, under a name the reader accepts.
  const std::string fake = write("fake.h264", ReadWhole(samples + "/sample.aac").substr(0, 4000));
  const std::string stereo = write("stereo.wav", boxweave::WaveHeader(48000, 2, 4000) + std::string(4000, '\0'));
  const std::string o = "record -o " + d + "/x.mov", v = " --video " + samples + "/sample.h264";
  const struct {
    std::string args;
    int status;
    std::string says;
  } cases[] = {
      {o + " --video " + d + "/missing.h264", 1, "missing.h264"},
      {"record -o " + d + "/x.avi" + v, 2, "cannot tell the format"},
      {o + " --video " + samples + "/sample.aac", 2, "is not an H.264 elementary stream"},
      {o + " --video" + fake, 1, "not an H.264 Annex-B stream"},
      {o + " --audio " + samples + "/../CMakeLists.txt", 2, "not an AAC"},
      {"record -o " + d + "/no/such/dir/x.mov" + v, 1, "cannot record to"},
      {o + v + " --set no_such_tag=1", 2, "unknown tag"},
      {o + v + " --fps 0", 2, "--fps"},
      {"record" + v, 2, "-o is required"},
      {o + v + " --cache-block 4096", 2, "--cache-block requires --cache-blocks"},
      {o + v + " --cache-block 0 --cache-blocks 2", 2, "--cache-block"},
      {o + v + " --format avi", 2, "--format"},
      {o + v + " --set videosampleperchunk", 2, "wants TAG=VALUE"},
      {o + " --format mp4", 2, "needs --video FILE or --audio FILE"},
      // H.265
      {o + " --video" + write("empty.h265", ""), 1, "empty.h265: empty file"},
      {o + " --video" + write("novps.hevc", std::string("\0\0\0\1\x26\x01\xaf\x08\x10\x20", 10)), 1,
       "novps.hevc: no VPS in the stream"},
      {o + " --video" + write("text.h265", std::string(64, 't')), 1, "not an H.265 Annex-B stream: no start code"},
      {o + " --video" + write("avc.h265", std::string("\0\0\0\1\x67\x42\0\x0a\0\0\0\1\x68\xce", 14)), 1,
       "not an H.265 stream: first NAL unit header 0x6742"},
      {o + " --video " + d + "/clip.mkv", 2,
       "is not an H.264 elementary stream (.h264, .264), an H.265 one (.h265, .hevc) or Motion-JPEG"},
      // Motion-JPEG, PCM and SubRip
      {o + " --video" + write("words.mjpeg", "no pictures here"), 1,
       "not a Motion-JPEG stream: no JPEG picture (SOI marker FF D8) at its start"},
      {o + " --audio" + write("words.wav", "no RIFF header here"), 1, "words.wav: not a RIFF/WAVE file"},
      {o + " --audio" + write("six.wav", boxweave::WaveHeader(8000, 6, 1200) + std::string(1200, '\0')), 1,
       "6 channels: only 1 or 2 channels are recorded"},
      {o + " --audio" + write("mono16.s16le", std::string(640, '\0')), 2, "needs --audio-format s16le:RATE:CHANNELS"},
      {o + " --audio " + d + "/mono16.s16le --audio-format s16be:16000:1", 2, "sample format 's16be' is not supported"},
      {o + " --audio " + d + "/mono16.s16le --audio-format s16le:16000", 2, "wants s16le:RATE:CHANNELS"},
      {o + " --audio" + write("empty.s16le", "") + " --audio-format s16le:16000:1", 1, "empty.s16le: empty file"},
      {o + " --audio" + stereo + " --audio-format s16le:48000:2", 2, "--audio-format is for raw audio"},
      {o + " --audio " + d + "/clip.flac", 2, "is not an AAC ADTS stream (.aac) or 16-bit PCM"},
      {o + " --text" + write("words.srt", "no cues\nhere\n"), 1, "line 1: no timing line"},
      {o + " --text" + write("empty.srt", ""), 1, "empty.srt: empty file"},
      {o + " --text " + d + "/cues.txt", 2, "is not a SubRip file (.srt)"},
      // Recorded, but the reserved thumbnail stays empty: said before it happens.
      {o + v + " --thumb", 0, "warning: --thumb: no JPEG at " + d + "/x.jpg"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    Shell("rm -f " + d + "/x.mov");
    const ToolResult r = RunTool(c.args);
    const size_t at = r.err.find(c.says);
    EXPECT_TRUE(r.status == c.status && at != std::string::npos) << r.status << " " << r.err;
    EXPECT_EQ(r.err.find(c.says, at + 1), std::string::npos) << "said once\n" << r.err;
    EXPECT_EQ(Shell("test -e " + d + "/x.mov"), c.status == 0) << "written only when recorded";
  }

  // A tail shorter than a packet is left out, and said: 2.01 s of 48 kHz leaves 480 sample frames.
  const std::string tail = write("long.wav", boxweave::WaveHeader(48000, 2, 96480 * 4) + std::string(96480 * 4, '\0'));
  const ToolResult r = RunTool("record -o " + d + "/tail.mov --audio" + tail);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("the last 480 sample frames are left out"), std::string::npos) << r.err;
  EXPECT_EQ(Probe(d + "/tail.mov")["audio"]["duration"], "2.000000");
  // play asked for a track the file does not have.
  const ToolResult noText = RunTool("play " + d + "/tail.mov --text-out " + d + "/none.srt");
  EXPECT_EQ(noText.status, 1);
  EXPECT_NE(noText.err.find("no text track to write to"), std::string::npos) << noText.err;
}
