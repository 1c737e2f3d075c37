// "record": H.264 and AAC elementary streams into a movie file, through the plug-in's muxer element.
// The host plays the part of a camera graph: one source element a stream, linked to the muxer's input
// ports, packets delivered in time order, every message of the muxer printed.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "stream/base/Message.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOFile.h"
#include "stream/base/io/IUrl.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IElement.h"
#include "stream/core/fw/IIO.h"
#include "stream/core/fw/IPort.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/IMovMuxer.h"
#include "stream/plugin/mp4/common/ThumbBox.h"
#include "tools/AdtsReader.h"
#include "tools/Cli.h"
#include "tools/H264Reader.h"
#include "tools/H265Reader.h"
#include "tools/MjpegReader.h"
#include "tools/PcmReader.h"
#include "tools/RecordInputs.h"
#include "tools/SrtReader.h"

namespace boxweave {
namespace {

using kiv::base::AttrSet;
using kiv::base::Fraction;
using kiv::base::Message;
using kiv::base::Object;
using kiv::stream::IMedia;
using kiv::stream::IPort;
using kiv::stream::ISink;
using kiv::stream::ISource;
using kiv::stream::Packet;

// What the command line alone cannot tell: the format from the file name, and an output that would
// overwrite an input (opening it for writing truncates it before a byte is read).
int finishOptions(RecordOptions& o) {
  if (o.video.empty() && o.audio.empty() && o.text.empty())
    return UsageError("record needs --video FILE or --audio FILE, or --text FILE", "record");
  if (!o.audio.empty() && PcmReader::IsRaw(o.audio) && o.audioFormat.empty())
    return UsageError("record: raw audio '" + o.audio + "' needs --audio-format s16le:RATE:CHANNELS", "record");
  if (!o.audioFormat.empty() && !PcmReader::IsRaw(o.audio))
    return UsageError("record: --audio-format is for raw audio (.s16le, .pcm)", "record");
  PcmFormat format;
  std::string why;
  if (!o.audioFormat.empty() && !ParsePcmFormat(o.audioFormat, format, why))
    return UsageError("record: --audio-format " + why, "record");
  for (const std::string* in : {&o.video, &o.audio, &o.text})
    if (!in->empty() && SameFile(o.out, *in))
      return UsageError("record: the output '" + o.out + "' is the input '" + *in + "'", "record");
  if (o.format == "fmp4") o.fragmented = true;
  if (o.fragmented) {
    if (!o.format.empty() && o.format != "mp4" && o.format != "fmp4")
      return UsageError("record: --fragmented writes MP4, not " + o.format, "record");
    if (o.spill || o.tableFiles)
      return UsageError("record: a fragmented recording keeps no sample tables; --spill and --table-files do not apply",
                        "record");
    // The fragment tracks there are: H.264 video, AAC and PCM sound.
    if ((!o.video.empty() && !H264Reader::HandlesPath(o.video)) || !o.text.empty())
      return UsageError("record: a fragmented recording takes H.264 video and AAC or PCM audio, no " +
                            std::string(!o.text.empty() ? "text" : "H.265 or Motion-JPEG video"),
                        "record");
    o.format = "fmp4";
  } else if (o.fragmentMs || o.flush) {
    return UsageError("record: --fragment-ms and --flush need --fragmented", "record");
  }
  if (o.format.empty()) {
    const std::string e = Extension(o.out);
    if (e != "mov" && e != "mp4")
      return UsageError("record: cannot tell the format of '" + o.out + "' (use .mov, .mp4 or --format)", "record");
    o.format = e;
  }
  return kOk;
}

// A source of the graph: one output port that carries the stream's media.
class StreamSource : public ISource {
 public:
  IPort* Port(IMedia* media) {
    if (!_port) {
      _port = CreatePortOut(media->Codec(), 0);
      if (_port && !_port->Media(*media)) _port = nullptr;
    }
    return _port;
  }

 private:
  IPort* _port = nullptr;
};

// One input: its reader and the next packet it holds.
struct Input {
  std::unique_ptr<H264Reader> h264;
  std::unique_ptr<H265Reader> h265;
  std::unique_ptr<AdtsReader> adts;
  std::unique_ptr<PacketSource> other;  // any other kind of stream
  IMedia* media = nullptr;
  std::unique_ptr<StreamSource> source;
  IPort* port = nullptr;
  Packet* next = nullptr;
  bool done = false;

  bool advance() {
    next = other   ? other->NextPacket(media)
           : h264  ? h264->NextPacket(media)
           : h265  ? h265->NextPacket(media)
                   : adts->NextPacket(media);
    if (next == PacketError()) {
      next = nullptr;
      return false;
    }
    done = next == nullptr;
    return true;
  }
  const std::string& error() const {
    return other ? other->Error() : h264 ? h264->Error() : h265 ? h265->Error() : adts->Error();
  }
  ~Input() {
    if (next) next->Release();
    if (media) media->Release();
  }
};

int failed(const std::string& message) {
  std::fprintf(stderr, "boxweave: %s\n", message.c_str());
  return kFailed;
}

// The first SIGINT or SIGTERM ends the recording between two packets, so that the movie is closed
// whole; the handler resets itself, and a second signal ends the process at once.
volatile std::sig_atomic_t stopSignal = 0;
extern "C" void onStopSignal(int sig) { stopSignal = sig; }

struct StopSignals {
  StopSignals() {
    stopSignal = 0;
    struct sigaction sa = {};
    sa.sa_handler = onStopSignal;
    sa.sa_flags = SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM}) ::sigaction(sig, &sa, nullptr);
  }
  ~StopSignals() {
    for (int sig : {SIGINT, SIGTERM}) std::signal(sig, SIG_DFL);
  }
};

// Temporary files can only be trusted where one can be made and written: a directory that is
// missing, read-only or full would otherwise only show when the first sample list spills.
std::string tmpProblem(const std::string& dir) {
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) return std::strerror(errno);
  if (!S_ISDIR(st.st_mode)) return std::strerror(ENOTDIR);
  QuietLog quiet;
  kiv::base::IOFile probe;
  const std::vector<char> block(4096);
  const bool ok = probe.Open((dir + "/boxweave-probe").c_str(), "wbt") &&
                  probe.Write(block.data(), static_cast<long long>(block.size())) == static_cast<long long>(block.size()) &&
                  probe.Flush();
  probe.Close();
  std::string problem = kiv::base::IOFile::TemporaryError();
  kiv::base::IOFile::ClearTemporaryError();
  return ok || !problem.empty() ? problem : "cannot write a file there";
}

// Where 32-bit offsets stop: 4 GiB, or for tests the number in BOXWEAVE_LIMIT32, which lets a small
// recording meet the engine's check as a large one would after a wrong guess.
unsigned long long limit32() {
  const unsigned long long full = kiv::plugin::mov::IMovMuxer::kLimit32;
  const char* v = std::getenv("BOXWEAVE_LIMIT32");
  if (!v || !*v) return full;
  char* end = nullptr;
  const unsigned long long n = std::strtoull(v, &end, 0);
  return end && *end == '\0' && n > 0 && n < full ? n : full;
}

// The media data holds each access unit with four-byte lengths in place of start codes, and the AAC
// frames without their headers: no more than the inputs' own counts. The margin covers ftyp and the
// mdat header, with room to spare.
constexpr unsigned long long kHeaderMargin = 1ull << 20;

// An input's whole size, counted towards the media where its reader does not tell the payload: its
// headers are few against its samples.
unsigned long long inputBytes(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && st.st_size > 0 ? static_cast<unsigned long long>(st.st_size) : 0;
}

}  // namespace

int Record(RecordOptions o) {
  if (int status = finishOptions(o)) return status;
  if (!o.tmp.empty()) kiv::base::DriveMap('d', o.tmp.c_str());
  const std::string tmpDir = kiv::base::DriveDir('d');
  if (!o.tmp.empty() || o.spill || o.tableFiles) {
    const std::string problem = tmpProblem(tmpDir);
    if (!problem.empty()) return failed("cannot write temporary files in " + tmpDir + ": " + problem);
  }
  kiv::base::IOFile::ClearTemporaryError();
  if (o.thumb) {
    // The muxer takes the picture from OUT's path up to its first dot, plus .jpg; without one the
    // reserved box stays empty, which a user should hear of now rather than find out later.
    const std::string jpeg = o.out.substr(0, o.out.find('.')) + ".jpg";
    struct stat st {};
    if (::stat(jpeg.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
      std::fprintf(stderr, "boxweave: warning: --thumb: no JPEG at %s; the thumbnail box stays empty\n", jpeg.c_str());
    else if (st.st_size > static_cast<off_t>(kiv::plugin::mov::cthumb::kReserve - kiv::plugin::mov::cthumb::kFreeRoom))
      std::fprintf(stderr, "boxweave: warning: --thumb: %s has %lld bytes, more than the box takes; it stays empty\n",
                   jpeg.c_str(), static_cast<long long>(st.st_size));
  }

  std::vector<std::unique_ptr<Input>> inputs;
  double seconds = 0;
  unsigned long long mediaBytes = kHeaderMargin;
  {
    QuietLog quiet;  // the readers' reasons are printed below, once
    const auto addOther = [&](const std::string& problem, OpenedInput& opened, const std::string& path) {
      if (!problem.empty()) return false;
      mediaBytes += inputBytes(path);
      for (const std::string& w : opened.warnings) std::fprintf(stderr, "boxweave: warning: %s\n", w.c_str());
      auto in = std::make_unique<Input>();
      in->media = opened.media;
      in->other = std::move(opened.reader);
      seconds = std::max(seconds, opened.seconds);
      inputs.push_back(std::move(in));
      return true;
    };
    if (!o.video.empty() && MjpegReader::HandlesPath(o.video)) {
      OpenedInput opened;
      const std::string problem = OpenMjpegInput(o.video, o.fps, opened);
      if (!addOther(problem, opened, o.video)) return failed(problem);
    } else if (!o.video.empty() && H265Reader::HandlesPath(o.video)) {
      H265Description d;
      std::string error;
      if (!DescribeH265(o.video, d, error)) return failed(error);
      for (const std::string& w : H265Warnings(d)) std::fprintf(stderr, "boxweave: warning: %s\n", w.c_str());
      auto in = std::make_unique<Input>();
      in->media = NewH265Media(d, o.fps);
      in->h265 = std::make_unique<H265Reader>();
      if (!in->media || !in->h265->Open(o.video) || !in->h265->FrameRate(o.fps))
        return failed("cannot read " + o.video + ": " + in->h265->Error());
      seconds = static_cast<double>(d.pictures) * static_cast<double>(o.fps.Den()) / static_cast<double>(o.fps.Num());
      mediaBytes += inputBytes(o.video);
      inputs.push_back(std::move(in));
    } else if (!o.video.empty()) {
      H264Description d;
      std::string error;
      if (!DescribeH264(o.video, d, error)) return failed(error);
      for (const std::string& w : H264Warnings(d)) std::fprintf(stderr, "boxweave: warning: %s\n", w.c_str());
      auto in = std::make_unique<Input>();
      in->media = NewH264Media(d, o.fps);
      in->h264 = std::make_unique<H264Reader>();
      if (!in->media || !in->h264->Open(o.video) || !in->h264->FrameRate(o.fps))
        return failed("cannot read " + o.video + ": " + in->h264->Error());
      seconds = static_cast<double>(d.pictures) * static_cast<double>(o.fps.Den()) / static_cast<double>(o.fps.Num());
      mediaBytes += d.bytes;
      inputs.push_back(std::move(in));
    }
    if (!o.audio.empty() && PcmReader::HandlesPath(o.audio)) {
      OpenedInput opened;
      const std::string problem = OpenPcmInput(o.audio, o.audioFormat, opened);
      // The PCM fragment track counts its length in milliseconds on 32 bits: past 2^32 / (1000 × rate)
      // seconds its fragment times jump back.
      const auto* pcm = dynamic_cast<const PcmReader*>(opened.reader.get());
      const double wrap = pcm && pcm->Format().rate ? 4294967.296 / pcm->Format().rate : 0;
      if (problem.empty() && o.fragmented && wrap > 0 && opened.seconds > wrap)
        std::fprintf(stderr,
                     "boxweave: warning: %s lasts %.1f s; fragmented PCM times wrap after %.1f s at %u Hz, so the "
                     "sound after that does not play as recorded (record it into a plain file)\n",
                     o.audio.c_str(), opened.seconds, wrap, pcm->Format().rate);
      if (!addOther(problem, opened, o.audio)) return failed(problem);
    } else if (!o.audio.empty()) {
      AdtsDescription d;
      std::string error;
      if (!DescribeAdts(o.audio, d, error)) return failed(error);
      for (const std::string& w : AdtsWarnings(d)) std::fprintf(stderr, "boxweave: warning: %s\n", w.c_str());
      auto in = std::make_unique<Input>();
      in->media = NewAdtsMedia(d);
      in->adts = std::make_unique<AdtsReader>();
      if (!in->media || !in->adts->Open(o.audio)) return failed("cannot read " + o.audio + ": " + in->adts->Error());
      if (d.config.rate) seconds = std::max(seconds, static_cast<double>(d.samples) / d.config.rate);
      mediaBytes += d.payloadBytes;
      inputs.push_back(std::move(in));
    }
    if (!o.text.empty()) {
      OpenedInput opened;
      const std::string problem = OpenSrtInput(o.text, opened);
      if (!addOther(problem, opened, o.text)) return failed(problem);
    }
  }
  // The muxer element, found by keywords as a graph would find it.
  AttrSet ap;
  Object::AttrSetInit(ap, nullptr,
                      o.format == "mov" ? "mov-muxer" : o.format == "fmp4" ? "mp4-muxer-fragment" : "mp4-muxer");
  std::unique_ptr<ISink> mux(Object::New<ISink>(ap));
  if (!mux) return failed("the plug-in has no muxer for " + o.format);
  mux->SetMessageHandler(PrintMessage);

  if (!mux->setString("url", o.out.c_str())) return failed("the muxer takes no url");
  if (o.thumb && !mux->Set("thumb", true)) return failed("the muxer takes no thumbnail setting");
  if (o.fragmented && ((o.flush && !mux->Set("flush", true)) ||
                       (o.fragmentMs && !mux->Set("durationPreSegment-dps", o.fragmentMs * 1000000LL))))
    return failed("the muxer takes no fragment settings");
  if (o.cacheBlock && (!mux->Set("ioCacheBlk", static_cast<int>(o.cacheBlock)) ||
                       !mux->Set("ioCacheNum", static_cast<int>(o.cacheBlocks))))
    return failed("the muxer takes no write cache setting");
  kiv::plugin::mov::videoTags* tags = nullptr;
  if (!o.tags.empty() && (!mux->Get("vidtag", tags) || !tags)) return failed("the muxer has no profile");
  for (const auto& t : o.tags) {
    if (!tags->hasProperty(t.first.c_str())) return UsageError("record: unknown tag '" + t.first + "'", "record");
    if (!tags->setString(t.first.c_str(), t.second.c_str()))
      return UsageError("record: tag " + t.first + " does not take '" + t.second + "'", "record");
  }
  // Storage modes and 64-bit offsets are no element properties: the engine's own seam sets them.
  auto* engine = dynamic_cast<kiv::plugin::mov::IMovMuxer*>(mux.get());
  // The guess is made against the true reach; a limit from the environment moves only the engine's check.
  const unsigned long long limit = limit32();
  if (!o.use64 && mediaBytes > kiv::plugin::mov::IMovMuxer::kLimit32) {
    o.use64 = true;
    std::fprintf(stderr, "boxweave: the inputs hold %llu bytes: %s gets 64-bit offsets\n", mediaBytes, o.out.c_str());
  }
  if (!engine && (o.spill || o.tableFiles || o.use64))
    return failed("the muxer has no engine to take --spill, --table-files or 64-bit offsets");
  if (engine && (o.spill || o.tableFiles)) engine->StorageModes(o.spill, o.tableFiles);
  if (engine) engine->LargeFile(o.use64, limit);

  for (auto& in : inputs) {
    in->source = std::make_unique<StreamSource>();
    in->port = in->source->Port(in->media);
    in->media->Hold();  // the port took one reference; the input keeps its own
    if (!in->port || !in->source->LinkTo(mux.get())) return failed("cannot link an input to the muxer");
  }
  // The plug-in does not check its writes; the stream under the element says whether they failed.
  auto* sink = dynamic_cast<kiv::stream::IIO*>(mux.get());
  if (!sink) return failed("the muxer has no stream to write to");
  StopSignals signals;
  if (!mux->Open()) return failed("cannot record to " + o.out);
  std::string writeError;
  const auto checkWrites = [&] {
    if (!writeError.empty()) return false;
    const std::string out = sink->io ? sink->io->Error() : sink->IOError();
    const std::string tmp = kiv::base::IOFile::TemporaryError();
    if (!out.empty()) writeError = "writing " + o.out + " failed: " + out;
    else if (!tmp.empty()) writeError = "writing temporary files in " + tmpDir + " failed: " + tmp;
    return writeError.empty();
  };

  for (auto& in : inputs)
    if (!in->advance()) return failed(in->error());
  const bool progress = isatty(2) && seconds > 10;
  long long lastShown = -1;
  bool ok = true;
  while (!stopSignal && checkWrites()) {
    // Packets go out in time order; at equal times video first.
    Input* pick = nullptr;
    for (auto& in : inputs)
      if (in->next && (!pick || in->next->pts < pick->next->pts)) pick = in.get();
    if (!pick) break;
    Packet* p = pick->next;
    pick->next = nullptr;
    const long long pts = p->pts;
    const int pushed = pick->port->Push(p, true);
    p->Release();
    if (!pushed) {
      ok = false;
      if (engine && engine->PastLimit())
        std::fprintf(stderr, "boxweave: %s stops at %.3f s: past %llu bytes it needs 64-bit offsets (--64bit)\n",
                     o.out.c_str(), static_cast<double>(pts) / 1e9, limit);
      else
        std::fprintf(stderr, "boxweave: the muxer refused a packet at %.3f s\n", static_cast<double>(pts) / 1e9);
      break;
    }
    if (!pick->advance()) {
      ok = false;
      std::fprintf(stderr, "boxweave: %s\n", pick->error().c_str());
      break;
    }
    if (progress && pts / 1000000000 != lastShown) {
      lastShown = pts / 1000000000;
      std::fprintf(stderr, "\rrecording %lld s of %.0f s", lastShown, seconds);
    }
  }
  if (progress) std::fprintf(stderr, "\n");
  const int stoppedBy = stopSignal;
  bool closed = false;
  if (checkWrites()) {
    closed = mux->Close();
  } else {
    QuietLog quiet;  // every write after the first fails alike; that one was logged
    closed = mux->Close();
  }
  if (!checkWrites()) {
    failed(writeError);
    RemoveOutput(o.out);
    return kFailed;
  }
  if (!closed && engine && engine->PastLimit()) {
    // What the tracks held back passed the limit: there is no moov, and nothing worth keeping.
    RemoveOutput(o.out);
    return failed(o.out + " would pass " + std::to_string(limit) + " bytes, past the reach of 32-bit offsets; removed (use --64bit)");
  }
  if (!closed) return failed("closing " + o.out + " failed");
  if (stoppedBy) {
    std::fprintf(stderr, "boxweave: recording stopped by %s; %s holds what came before\n",
                 stoppedBy == SIGINT ? "SIGINT" : "SIGTERM", o.out.c_str());
    return 128 + stoppedBy;
  }
  return ok ? kOk : kFailed;
}



Verb AddRecord(CLI::App& app) {
  auto o = std::make_shared<RecordOptions>();
  CLI::App* cmd = app.add_subcommand("record", "record video, audio and text streams into a .mov or .mp4 file");
  cmd->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);  // a repeated option: the last counts
  cmd->footer(
      "Records a video stream (H.264 or H.265 Annex-B, or Motion-JPEG), an audio stream (AAC ADTS or 16-bit\n"
      "PCM) and SubRip text, any of them, into a QuickTime (.mov) or MP4 (.mp4) file with the\n"
      "plug-in's muxer element, and prints every message the element sends.\n"
      "\n"
      "Choose --fragmented when the recording may be cut off (power loss, a crash, a full card):\n"
      "a plain file is unplayable until its index is written at the end, while a fragmented file\n"
      "is playable up to its last complete fragment. With --flush each fragment is forced to the\n"
      "medium before the next begins, so a cut loses at most the fragment in progress. Fragmented\n"
      "files also stream to browsers (Media Source). Plain files suit players and editors that\n"
      "want one index and fast seeking, and cost no syncs.\n"
      "\n"
      "A file gets 64-bit offsets (a 64-bit mdat and co64 tables) with --64bit, or when the inputs\n"
      "hold more than 4 GiB less 1 MiB of media. A recording that grows past 4 GiB with 32-bit\n"
      "offsets anyway stops there with an error and status 1: no offset is ever written wrapped.");
  cmd->add_option("-o", o->out, "the file to write; its extension gives the format")->required()->type_name("OUT");
  cmd->add_option("--format", o->format, "the format, whatever the extension")
      ->check(CLI::IsMember({"mov", "mp4", "fmp4"}))
      ->type_name("mov|mp4|fmp4");
  cmd->add_flag("--fragmented", o->fragmented,
                "write fragmented MP4 (moof/mdat pairs): playable up to the last fragment if cut off");
  cmd->add_option("--fragment-ms", o->fragmentMs,
                  "with --fragmented: length of a fragment (video cuts at the next key frame); default: one "
                  "GOP of video, half a second of audio")
      ->type_name("MS")
      ->check(CLI::Range(1LL, 86400000LL));
  cmd->add_flag("--flush", o->flush, "with --fragmented: force each fragment to the medium before the next");
  cmd->add_option("--video", o->video,
                  "H.264 or H.265 elementary stream (.h264, .264, .h265, .hevc) or Motion-JPEG (.mjpeg, .mjpg)")
      ->type_name("FILE")
      ->check(CLI::Validator(
          [](std::string& v) {
            return H264Reader::HandlesPath(v) || H265Reader::HandlesPath(v) || MjpegReader::HandlesPath(v)
                       ? std::string()
                       : "'" + v + "' is not an H.264 elementary stream (.h264, .264), an H.265 one (.h265, .hevc) or "
                             "Motion-JPEG (.mjpeg, .mjpg)";
          },
          ""));
  cmd->add_option("--audio", o->audio,
                  "AAC elementary stream with ADTS headers (.aac), 16-bit PCM WAVE (.wav) or raw 16-bit PCM (.s16le, "
                  ".pcm, with --audio-format)")
      ->type_name("FILE")
      ->check(CLI::Validator(
          [](std::string& v) {
            return AdtsReader::HandlesPath(v) || PcmReader::HandlesPath(v)
                       ? std::string()
                       : "'" + v + "' is not an AAC ADTS stream (.aac) or 16-bit PCM (.wav, .s16le, .pcm)";
          },
          ""));
  cmd->add_option("--audio-format", o->audioFormat, "the format of raw PCM audio: s16le, rate in Hz, channels (1 or 2)")
      ->type_name("s16le:RATE:CHANNELS");
  cmd->add_option("--text", o->text,
                  "SubRip subtitles (.srt) for a text track: each cue a sample lasting to its end or the next cue's "
                  "start, gaps as empty samples")
      ->type_name("FILE")
      ->check(CLI::Validator(
          [](std::string& v) { return SrtReader::HandlesPath(v) ? std::string() : "'" + v + "' is not a SubRip file (.srt)"; },
          ""));
  cmd->add_option_function<std::string>(
         "--fps",
         [o](const std::string& v) {
           if (!o->fps.From(v.c_str()) || o->fps.Num() <= 0 || o->fps.Den() <= 0)
             throw CLI::ValidationError("--fps", "wants N or N/D, not '" + v + "'");
         },
         "video frame rate (default 30)")
      ->type_name("N[/D]");
  cmd->add_flag("--thumb", o->thumb,
                "reserve room for a thumbnail, filled from the JPEG named by OUT's path up to its first dot plus "
                ".jpg (a dot in a directory cuts too)");
  CLI::Option* block = cmd->add_option("--cache-block", o->cacheBlock, "write through a cache of blocks of this size ...")
                           ->type_name("BYTES")
                           ->check(CLI::Range(1LL, 0x7fffffffLL));
  CLI::Option* blocks = cmd->add_option("--cache-blocks", o->cacheBlocks, "... and this many of them")
                            ->type_name("N")
                            ->check(CLI::Range(1LL, 0x7fffffffLL));
  block->needs(blocks);
  blocks->needs(block);
  cmd->add_flag("--spill", o->spill, "keep sample lists in temporary files, not in memory");
  cmd->add_flag("--table-files", o->tableFiles, "write each sample table into a file of its own while recording");
  cmd->add_flag("--64bit", o->use64,
                "64-bit offsets (a 64-bit mdat and co64) whatever the size; chosen anyway when the inputs "
                "could take the file past 4 GiB");
  cmd->add_option("--tmp", o->tmp, "directory of the temporary files (default: the system's)")->type_name("DIR");
  cmd->add_option_function<std::vector<std::string>>(
         "--set",
         [o](const std::vector<std::string>& all) {
           for (const std::string& v : all) {
             const size_t eq = v.find('=');
             if (eq == std::string::npos || eq == 0) throw CLI::ValidationError("--set", "wants TAG=VALUE, not '" + v + "'");
             o->tags.emplace_back(v.substr(0, eq), v.substr(eq + 1));
           }
         },
         "set a tag of the file-type profile (see 'boxweave inspect videoTags'); may be repeated")
      ->type_name("TAG=VALUE")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false);
  return {cmd, [o] { return Record(*o); }};
}

}  // namespace boxweave
