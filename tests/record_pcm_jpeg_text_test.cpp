// Motion-JPEG, PCM and SubRip streams that ffmpeg makes at test time, recorded alone and together
// (and beside H.264 and H.265 video)
// through the command-line host and played back through it: ffprobe and ffmpeg judge the files, the
// decoded pictures and samples must be those of the sources, the cues those of the SubRip file.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "tests/GeneratedMedia.h"
#include "tests/ToolRun.h"
#include "tools/SrtReader.h"

namespace {

using namespace generated;

// The cues of a SubRip text, or none with the reason as the only cue's text.
std::vector<boxweave::SrtCue> cuesOf(const std::string& text) {
  std::vector<boxweave::SrtCue> cues;
  std::string why;
  if (!boxweave::ParseSrt(text, cues, why)) return {{-1, -1, why}};
  return cues;
}
std::string show(const std::vector<boxweave::SrtCue>& cues) {
  std::string s;
  for (const auto& c : cues) s += std::to_string(c.start) + "-" + std::to_string(c.end) + " '" + c.text + "'\n";
  return s;
}

constexpr const char* kSrt =
    "1\n00:00:00,300 --> 00:00:00,900\nFirst cue\n\n"
    "2\n00:00:00,900 --> 00:00:01,250\nSecond, right behind\nover two lines\n\n"
    "3\n00:00:01,600 --> 00:00:01,900\nGPS 48.1371 N 11.5754 E \xC2\xB0\n";

class PcmJpegTextRecord : public ::testing::Test {
 protected:
  struct Source {
    std::string path, md5;   // md5 of what ffmpeg decodes from it (pictures, or s16le samples)
    long long frames = 0;    // pictures, or sample frames
    long long width = 0, height = 0, rate = 0, channels = 0;
    std::string record;      // the record options that take it
    std::string codec;       // as ffprobe names it
  };

  static void SetUpTestSuite() {
    dir_ = ScratchDir("bw_pcmjpegtext_", why_);
    if (dir_.empty()) return;
    why_ = "ffmpeg cannot make the Motion-JPEG, PCM, H.264 and AAC sources";
    const std::string d = dir_ + "/";
    ready_ = Shell("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 50 -c:v mjpeg "
                   "-q:v 4 -f mjpeg " + d + "pictures.mjpeg") &&
             Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -ac 2 "
                   "-c:a pcm_s16le " + d + "stereo48.wav") &&
             Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=300:sample_rate=16000:duration=2 -ac 1 "
                   "-f s16le " + d + "mono16.s16le") &&
             Shell("ffmpeg -nostdin -v error -y " + std::string(kPictures) + "-profile:v baseline -bf 0 -g 30 -f h264 " + d +
                   "pictures.h264") &&
             Shell("ffmpeg -nostdin -v error -y " + std::string(kPictures) +
                   "-c:v libx265 -x265-params log-level=none:bframes=0 -g 30 -f hevc " + d + "pictures.h265") &&
             Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=frequency=440:sample_rate=48000 -t 2 -ac 2 -b:a 96k "
                   "-c:a aac -f adts " + d + "stereo48.aac");
    if (!ready_) return;
    std::ofstream(d + "cues.srt") << kSrt;
    mjpeg_ = video(d + "pictures.mjpeg", "--video " + d + "pictures.mjpeg --fps 25", "mjpeg");
    h264_ = video(d + "pictures.h264", "--video " + d + "pictures.h264 --fps 30", "h264");
    hevc_ = video(d + "pictures.h265", "--video " + d + "pictures.h265 --fps 30", "hevc");
    wav48_ = audio(d + "stereo48.wav", "--audio " + d + "stereo48.wav", "");
    raw16_ = audio(d + "mono16.s16le", "--audio " + d + "mono16.s16le --audio-format s16le:16000:1",
                   "-f s16le -ar 16000 -ac 1 ");
    aac_ = audio(d + "stereo48.aac", "--audio " + d + "stereo48.aac", "");
    ready_ = mjpeg_.frames == 50 && h264_.frames == 60 && hevc_.frames == 60 && wav48_.frames == 96000 && raw16_.frames == 32000 &&
             !aac_.md5.empty();
  }
  static void TearDownTestSuite() { Shell("rm -rf " + dir_); }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << why_;
  }

  static Source video(const std::string& path, const std::string& record, const char* codec) {
    Source s;
    s.path = path;
    s.record = record;
    s.codec = codec;
    const Fields f = Probe(path)["video"];
    s.frames = Count(f, "nb_read_frames");
    s.width = Count(f, "width");
    s.height = Count(f, "height");
    s.md5 = Decode(dir_, path, true, false, false).video;
    return s;
  }
  static Source audio(const std::string& path, const std::string& record, const std::string& input) {
    Source s;
    s.path = path;
    s.record = record;
    const Fields f = Probe(input.empty() ? path : "-f s16le -ar 16000 -ac 1 " + path)["audio"];
    s.rate = input.empty() ? Count(f, "sample_rate") : 16000;
    s.channels = input.empty() ? Count(f, "channels") : 1;
    const std::string raw = dir_ + "/source.raw";
    Shell("ffmpeg -nostdin -v error -y " + input + "-i " + path + " -f s16le " + raw);
    s.frames = static_cast<long long>(ReadWhole(raw).size()) / (2 * (s.channels > 0 ? s.channels : 1));
    s.md5 = Capture("md5sum <" + raw).substr(0, 32);
    return s;
  }

  struct Combination {
    const char* name;
    const Source* video;
    const Source* audio;
    bool text;
  };
  void CheckRecording(const Combination& c, const std::string& ext) {
    const std::string base = dir_ + "/" + c.name, file = base + "." + ext;
    SCOPED_TRACE(file);
    std::string args = "record -o " + file;
    if (c.video) args += " " + c.video->record;
    if (c.audio) args += " " + c.audio->record;
    if (c.text) args += " --text " + dir_ + "/cues.srt";
    const ToolResult r = RunTool(args);
    ASSERT_EQ(r.status, 0) << r.err;

    std::map<std::string, Fields> p = Probe(file);
    ASSERT_EQ(p.size(), static_cast<size_t>(!!c.video + !!c.audio + c.text)) << "ffprobe sees every track";
    const bool jpeg = c.video == &mjpeg_;
    if (c.video) {
      Fields& v = p["video"];
      EXPECT_EQ(Capture("ffprobe -v error -select_streams v -show_entries stream=codec_name -of csv=p=0 " + file),
                c.video->codec + "\n");
      EXPECT_EQ(Count(v, "width"), c.video->width);
      EXPECT_EQ(Count(v, "height"), c.video->height);
      EXPECT_EQ(Count(v, "nb_read_frames"), c.video->frames);
      EXPECT_NEAR(Seconds(v), 2.0, 0.001);
    }
    if (c.audio) {
      Fields& a = p["audio"];
      EXPECT_EQ(Capture("ffprobe -v error -select_streams a -show_entries stream=codec_name -of csv=p=0 " + file),
                std::string(c.audio == &aac_ ? "aac\n" : "pcm_s16le\n"));
      EXPECT_EQ(Count(a, "sample_rate"), c.audio->rate);
      EXPECT_EQ(Count(a, "channels"), c.audio->channels);
      if (c.audio != &aac_) {
        EXPECT_NEAR(Seconds(a), static_cast<double>(c.audio->frames) / c.audio->rate, 0.001);
      }
    }
    // Every picture and every sample as the source decodes.
    const Decoded d = Decode(dir_, file, c.video, c.audio, false);
    EXPECT_EQ(d.status, 0) << d.errors;
    if (c.video) {
      EXPECT_EQ(d.video, c.video->md5);
    }
    if (c.audio) {
      EXPECT_EQ(d.audio, c.audio->md5);
    }
    const std::vector<boxweave::SrtCue> source = cuesOf(kSrt);
    if (c.text) {
      EXPECT_EQ(Capture("ffprobe -v error -select_streams s -count_packets -show_entries stream=nb_read_packets "
                        "-of csv=p=0 " + file),
                "6\n")
          << "three cues, two gaps and the end of the last cue";
      EXPECT_EQ(show(cuesOf(Capture("ffmpeg -nostdin -v error -i " + file + " -map 0:s -f srt -"))), show(source));
    }

    // Round trip through play: the streams it writes back decode as the sources do.
    std::string outs;
    // H.264 comes back with the length prefixes play keeps (its own tests and README tell of them).
    if (jpeg) outs += " --video-out " + base + "_back.mjpeg";
    if (c.video == &hevc_) outs += " --video-out " + base + "_back.h265";
    if (c.audio) outs += " --audio-out " + base + "_back" + (c.audio == &aac_ ? ".aac" : ".wav");
    if (c.text) outs += " --text-out " + base + "_back.srt";
    const ToolResult back = RunTool("play " + file + outs);
    ASSERT_EQ(back.status, 0) << back.err;
    if (jpeg) {
      const std::string out = base + "_back.mjpeg";
      EXPECT_EQ(Decode(dir_, out, true, false, false).video, c.video->md5);
      EXPECT_EQ(ReadWhole(out), ReadWhole(c.video->path)) << "the pictures come back byte for byte";
    }
    if (c.video == &hevc_) {
      EXPECT_EQ(Decode(dir_, base + "_back.h265", true, false, false).video, c.video->md5);
    }
    if (c.audio) {
      EXPECT_EQ(Decode(dir_, base + "_back" + (c.audio == &aac_ ? ".aac" : ".wav"), false, true, false).audio,
                           c.audio->md5);
    }
    if (c.text) {
      EXPECT_EQ(show(cuesOf(ReadWhole(base + "_back.srt"))), show(source));
      EXPECT_NE(back.out.find("text: txt, 6 samples (3 with text)"), std::string::npos) << back.out;
    }
  }

  static std::string dir_, why_;
  static bool ready_;
  static Source mjpeg_, h264_, hevc_, wav48_, raw16_, aac_;
};

std::string PcmJpegTextRecord::dir_, PcmJpegTextRecord::why_;
bool PcmJpegTextRecord::ready_ = false;
PcmJpegTextRecord::Source PcmJpegTextRecord::mjpeg_, PcmJpegTextRecord::h264_, PcmJpegTextRecord::hevc_, PcmJpegTextRecord::wav48_,
    PcmJpegTextRecord::raw16_, PcmJpegTextRecord::aac_;

TEST_F(PcmJpegTextRecord, AloneAndTogetherInBothFlavours) {
  const Combination cases[] = {
      {"mjpeg", &mjpeg_, nullptr, false},          {"pcm48", nullptr, &wav48_, false},
      {"pcm16", nullptr, &raw16_, false},          {"mjpeg_pcm48", &mjpeg_, &wav48_, false},
      {"mjpeg_pcm16", &mjpeg_, &raw16_, false},    {"h264_pcm48", &h264_, &wav48_, false},
      {"h264_aac_text", &h264_, &aac_, true},      {"mjpeg_text", &mjpeg_, nullptr, true},
      {"hevc_pcm48", &hevc_, &wav48_, false},      {"hevc_pcm16", &hevc_, &raw16_, false},
  };
  for (const Combination& c : cases)
    for (const char* ext : {"mov", "mp4"}) CheckRecording(c, ext);
}

TEST_F(PcmJpegTextRecord, ChunkedAndTableFileRecordingsKeepEverySample) {
  // PCM cut into chunks of 4800 frames from its byte stream, alone and behind video; tables written
  // into files of their own while recording: the samples stay those of the sources.
  const std::string d = dir_ + "/";
  const struct {
    const char* name;
    std::string options;
  } cases[] = {
      {"chunked.mov", mjpeg_.record + " " + wav48_.record + " --set audiosampleperchunk=4800"},
      {"alone_chunked.mp4", wav48_.record + " --set audiosampleperchunk=4800"},
      {"tablefiles.mov", mjpeg_.record + " " + raw16_.record + " --text " + d + "cues.srt --table-files --spill --tmp " + dir_},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const ToolResult r = RunTool("record -o " + d + c.name + " " + c.options);
    ASSERT_EQ(r.status, 0) << r.err;
    const bool video = c.options.find("--video") != std::string::npos;
    const bool raw = c.options.find("s16le") != std::string::npos;
    const Decoded got = Decode(dir_, d + c.name, video, true, false);
    EXPECT_EQ(got.status, 0) << got.errors;
    if (video) {
      EXPECT_EQ(got.video, mjpeg_.md5);
    }
    EXPECT_EQ(got.audio, raw ? raw16_.md5 : wav48_.md5);
  }
}

TEST_F(PcmJpegTextRecord, InputsThatCannotBeRecordedAreRefusedByName) {
  const std::string d = dir_ + "/";
  Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=sample_rate=8000:duration=0.5 -c:a pcm_u8 " + d + "u8.wav");
  Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=sample_rate=8000:duration=0.5 -c:a pcm_f32le " + d + "f32.wav");
  Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=sample_rate=8000:duration=0.5 -ac 6 -c:a pcm_s16le " + d + "six.wav");
  Shell("ffmpeg -nostdin -v error -y -f lavfi -i sine=sample_rate=48000:duration=2.01 -c:a pcm_s16le " + d + "long.wav");
  for (const char* empty : {"empty.mjpeg", "empty.wav", "empty.s16le", "empty.srt"}) Shell(": >" + d + empty);
  std::ofstream(d + "words.mjpeg") << "no pictures here";
  std::ofstream(d + "words.wav") << "no RIFF header here";
  std::ofstream(d + "words.srt") << "no cues\nhere\n";
  const struct {
    std::string args;
    int status;
    const char* says;
  } cases[] = {
      {"--video " + d + "words.mjpeg", 1, "not a Motion-JPEG stream: no JPEG picture (SOI marker FF D8) at its start"},
      {"--video " + d + "empty.mjpeg", 1, "empty.mjpeg: empty file"},
      {"--video " + d + "clip.avi", 2, "is not an H.264 elementary stream (.h264, .264), an H.265 one (.h265, .hevc) or Motion-JPEG"},
      {"--audio " + d + "words.wav", 1, "words.wav: not a RIFF/WAVE file"},
      {"--audio " + d + "empty.wav", 1, "empty.wav: empty file"},
      {"--audio " + d + "u8.wav", 1, "unsupported sample format: 8-bit PCM; only 16-bit PCM is recorded"},
      {"--audio " + d + "f32.wav", 1, "unsupported sample format: 32-bit float; only 16-bit PCM is recorded"},
      {"--audio " + d + "six.wav", 1, "6 channels: only 1 or 2 channels are recorded"},
      {"--audio " + d + "mono16.s16le", 2, "needs --audio-format s16le:RATE:CHANNELS"},
      {"--audio " + d + "mono16.s16le --audio-format s16be:16000:1", 2, "sample format 's16be' is not supported"},
      {"--audio " + d + "mono16.s16le --audio-format s16le:16000", 2, "wants s16le:RATE:CHANNELS"},
      {"--audio " + d + "empty.s16le --audio-format s16le:16000:1", 1, "empty.s16le: empty file"},
      {"--audio " + d + "stereo48.wav --audio-format s16le:48000:2", 2, "--audio-format is for raw audio"},
      {"--audio " + d + "clip.flac", 2, "is not an AAC ADTS stream (.aac) or 16-bit PCM"},
      {"--text " + d + "words.srt", 1, "line 1: no timing line"},
      {"--text " + d + "empty.srt", 1, "empty.srt: empty file"},
      {"--text " + d + "cues.txt", 2, "is not a SubRip file (.srt)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args);
    const std::string out = d + "refused.mov";
    Shell("rm -f " + out);
    const ToolResult r = RunTool("record -o " + out + " " + c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_FALSE(Shell("test -e " + out)) << "nothing is written";
  }

  // A tail shorter than a packet is left out, and said.
  const ToolResult r = RunTool("record -o " + d + "tail.mov --audio " + d + "long.wav");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("the last 480 sample frames are left out"), std::string::npos) << r.err;
  EXPECT_NEAR(Seconds(Probe(d + "tail.mov")["audio"]), 2.0, 0.0001);

  // play asked for a track the file does not have.
  const ToolResult noText = RunTool("play " + d + "tail.mov --text-out " + d + "none.srt");
  EXPECT_EQ(noText.status, 1);
  EXPECT_NE(noText.err.find("no text track to write to"), std::string::npos) << noText.err;
}

}  // namespace
