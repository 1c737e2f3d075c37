// "play": a movie file through the plug-in's demuxer element. The host plays the part of a player's
// graph: one sink element a track, linked to the element's output ports; the element's own thread
// delivers the packets; every message the element sends is printed; what arrived is written out,
// listed or counted.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "stream/base/Convert.h"
#include "stream/base/Message.h"
#include "stream/base/io/IO.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IElement.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/ThumbBox.h"
#include "stream/plugin/mp4/core/demux/Mp4Demuxer.h"
#include "tools/Cli.h"
#include "tools/Demux.h"
#include "tools/PcmReader.h"
#include "tools/TextTrack.h"

namespace boxweave {
namespace {

using kiv::base::Message;
using kiv::base::Printable;
using kiv::stream::IMedia;
using kiv::stream::IPort;
using kiv::stream::ISink;
using kiv::stream::Packet;

int failed(const std::string& path, const std::string& why) {
  std::fprintf(stderr, "boxweave: %s: %s\n", Printable(path).c_str(), why.c_str());
  return kFailed;
}

bool isPcm(const IMedia* m) { return m && std::strcmp(m->Codec(), "pcm") == 0; }

// The parameter sets of H.264 extra data as start-code units: the start-code form is taken as it
// is, a decoder configuration record ("avcC" form) is unpacked. Empty when it is neither.
std::string annexBExtra(const unsigned char* e, int n) {
  if (!e || n < 4) return "";
  if ((e[0] == 0 && e[1] == 0 && e[2] == 1) || (e[0] == 0 && e[1] == 0 && e[2] == 0 && e[3] == 1))
    return std::string(reinterpret_cast<const char*>(e), static_cast<size_t>(n));
  if (e[0] != 1 || n < 7) return "";
  std::string out;
  size_t p = 5;
  const size_t size = static_cast<size_t>(n);
  for (int list = 0; list < 2; ++list) {
    if (p >= size) return "";
    const unsigned count = list == 0 ? e[p] & 0x1fu : e[p];
    ++p;
    for (unsigned i = 0; i < count; ++i) {
      if (p + 2 > size) return "";
      const size_t len = static_cast<size_t>(e[p] << 8 | e[p + 1]);
      p += 2;
      if (len > size - p) return "";
      out.append("\0\0\0\1", 4);
      out.append(reinterpret_cast<const char*>(e + p), len);
      p += len;
    }
  }
  return out;
}

// The parameter sets of an HEVC track, which the demuxer hands over as attributes, not as extra data:
// VPS, SPS and PPS behind start codes. Empty when the media has none.
std::string hevcParamSets(IMedia* m) {
  std::string out;
  if (!m || std::strcmp(m->Codec(), "hevc") != 0) return out;
  const char* names[3][2] = {{"vps", "ivps"}, {"sps", "isps"}, {"pps", "ipps"}};
  for (const auto& n : names) {
    unsigned char* set = nullptr;
    unsigned size = 0;
    if (!m->Get(n[0], set) || !m->Get(n[1], size) || !set || !size) continue;
    out.append("\0\0\0\1", 4);
    out.append(reinterpret_cast<const char*>(set), size);
  }
  return out;
}

// Where the units of an access unit go on in length-prefix form, -1 when they do not: the plug-in
// turns back into start codes only the units that stand first in a sample of its own recordings (a
// delimiter, SPS, PPS, one slice), so that the units from an SEI or a second slice on, and a whole
// sample that begins otherwise (ffmpeg's first: SEI, then the slice), keep their four-byte lengths. A
// chain of such lengths must fit the rest of the packet exactly, each unit with a valid header byte:
// start-code units cannot be taken for one by chance.
long long lengthPrefixedAt(const unsigned char* d, size_t n) {
  auto tiles = [&](size_t q) {
    for (; q + 5 <= n;) {
      const size_t len = static_cast<size_t>(d[q]) << 24 | static_cast<size_t>(d[q + 1]) << 16 |
                         static_cast<size_t>(d[q + 2]) << 8 | d[q + 3];
      if (len == 0 || len > n - q - 4 || (d[q + 4] & 0x80) || (d[q + 4] & 31) == 0) return false;
      q += 4 + len;
    }
    return q == n;
  };
  auto startCode = [&](size_t q) {
    return q + 3 <= n && d[q] == 0 && d[q + 1] == 0 &&
           (d[q + 2] == 1 || (q + 4 <= n && d[q + 2] == 0 && d[q + 3] == 1));
  };
  if (!d || n < 5) return -1;
  if (!startCode(0)) return tiles(0) ? 0 : -1;
  for (size_t q = 4; q + 5 <= n; ++q)
    if (d[q] == 0 && !startCode(q) && d[q - 1] != 0 && tiles(q)) return static_cast<long long>(q);
  return -1;
}

// A file written as packets come; the first failed write is kept and nothing more is written.
class Output {
 public:
  Output() = default;
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;
  ~Output() { Close(); }
  bool Open(const std::string& path) {
    _path = path;
    errno = 0;
    _f = std::fopen(path.c_str(), "wb");
    if (!_f) _error = std::strerror(errno ? errno : EIO);
    return _f != nullptr;
  }
  bool IsOpen() const { return _f != nullptr; }
  void Write(const void* data, size_t n) {
    if (!_f || !_error.empty() || n == 0) return;
    errno = 0;
    if (std::fwrite(data, 1, n, _f) != n) _error = std::strerror(errno ? errno : EIO);
  }
  // "" or why writing failed.
  std::string Close() {
    if (_f) {
      errno = 0;
      if (std::fclose(_f) != 0 && _error.empty()) _error = std::strerror(errno ? errno : EIO);
      _f = nullptr;
    }
    return _error;
  }
  const std::string& Path() const { return _path; }

 private:
  std::FILE* _f = nullptr;
  std::string _path, _error;
};

// What the host's and the element's threads share during a run: its end, and with --seek the
// first packet, which the sink holds until the host has made the seek. That makes the place of the
// seek in the stream of packets the same on every run.
struct PlayRun {
  RunEnd end;
  bool holdFirst = false;  // set before Start
  bool arrived = false;    // under end's lock
  bool released = false;   // under end's lock
};

// What arrived on one port. Written by the element's thread while it runs, read by the host's
// after Stop has joined it.
struct Track {
  Track(const char* kind_, int index_) : kind(kind_), index(index_) {}
  const char* kind;
  int index;
  IPort* port = nullptr;
  Output out;
  bool extraWritten = false;
  long long prefixed = 0, firstPrefixed = -1;  // video packets written with units in length-prefix form
  long long bare = 0;                           // AAC packets written without an ADTS header
  long long packets = 0, keys = 0, bytes = 0;
  long long first = 0, last = 0, lastDuration = 0;  // file times, ns
};

// The sink of one track: takes each packet on the element's thread.
class TrackSink : public ISink {
 public:
  TrackSink(Track& track, PlayRun& run, bool list) : _track(track), _run(run), _list(list) {}

  bool ReceivePacket(Packet& p, void*) override {
    Track& t = _track;
    // The packet's time is its file time put on the steady clock; the clock base comes with it.
    const long long at = p.pts - p.clock;
    if (_list) {
      char line[200];
      std::snprintf(
          line, sizeof line,
          "packet|codec_type=%s|stream_index=%d|pts_time=%.6f|dts_time=%.6f|duration_time=%.6f|size=%d|flags=%s",
          t.kind, t.index, at / 1e9, at / 1e9, p.duration / 1e9, p.Size(), p.IsKey() ? "K_" : "__");
      PrintLine(line);
    }
    if (t.out.IsOpen()) {
      if (!t.extraWritten && p.media && p.media->IsVideo()) {
        std::string extra = annexBExtra(p.media->Extra(), p.media->ExtraSize());
        if (extra.empty()) extra = hevcParamSets(p.media);
        t.out.Write(extra.data(), extra.size());
      }
      if (!t.extraWritten && isPcm(p.media)) {
        // A provisional header; its sizes are put right when the run has ended.
        const std::string head = WaveHeader(0, 0, 0);
        t.out.Write(head.data(), head.size());
      }
      t.extraWritten = true;
      t.out.Write(p.Data(), static_cast<size_t>(p.Size()));
      if (p.media && p.media->IsVideo() && lengthPrefixedAt(p.Data(), static_cast<size_t>(p.Size())) >= 0) {
        if (t.prefixed++ == 0) t.firstPrefixed = t.packets;
      }
      const unsigned char* d = p.Data();
      if (p.media && p.media->IsAudio() && !isPcm(p.media) && !(p.Size() >= 2 && d[0] == 0xff && (d[1] & 0xf0) == 0xf0))
        ++t.bare;
    }
    if (t.packets == 0) t.first = at;
    ++t.packets;
    t.keys += p.IsKey();
    t.bytes += p.Size();
    t.last = at;
    t.lastDuration = p.duration;
    if (_run.holdFirst) {
      bool hold = false;
      _run.end.Notify([&] {
        hold = !_run.arrived;
        _run.arrived = true;
      });
      if (hold) _run.end.WaitFor([&] { return _run.released; });
    }
    return true;
  }

 private:
  Track& _track;
  PlayRun& _run;
  bool _list;
};

std::string seconds(long long ns) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f s", static_cast<double>(ns) / 1e9);
  return buf;
}

void printSummary(const Track& t) {
  IMedia* m = t.port->Media();
  std::string line = std::string(t.kind) + ": " + (m ? m->Codec() : "?");
  int width = 0, height = 0, rate = 0, channels = 0;
  if (m && m->IsVideo() && m->Get("width", width) && m->Get("height", height) && width > 0 && height > 0)
    line += " " + std::to_string(width) + "x" + std::to_string(height);
  if (m && m->IsAudio() && m->Get("rate", rate) && rate > 0) {
    line += " " + std::to_string(rate) + " Hz";
    if (m->Get("channel", channels) && channels > 0) line += " " + std::to_string(channels) + " ch";
  }
  line += ", " + std::to_string(t.packets) + " packets";
  if (t.packets > 0)
    line += " (" + std::to_string(t.keys) + " key), " + std::to_string(t.bytes) + " bytes, " + seconds(t.first) +
            " to " + seconds(t.last) + ", duration " + seconds(t.last + t.lastDuration - t.first);
  PrintLine(line);
}

// The JPEG of the first "thum" box in the file's box tree that holds one.
std::string thumbFromBoxes(const std::string& path) {
  std::unique_ptr<kiv::base::IO> io(kiv::base::IO::New(path.c_str(), "rb"));
  if (!io) return "";
  kiv::base::IOBlockReader reader(*io, 32768);
  std::unique_ptr<kiv::plugin::mov::IBox> root(kiv::plugin::mov::IBox::New("root", 0));
  if (!root) return "";
  kiv::base::AttrSet ap;
  root->Parse(reader, ap, true);  // what a damaged file lets be read is enough
  std::vector<std::pair<const kiv::plugin::mov::IBox*, int>> todo{{root.get(), 0}};
  while (!todo.empty()) {
    const auto [box, depth] = todo.back();
    todo.pop_back();
    if (const auto* t = dynamic_cast<const kiv::plugin::mov::cthumb*>(box))
      if (t->ThumbDataGet() && t->ThumbSizeGet())
        return std::string(reinterpret_cast<const char*>(t->ThumbDataGet()), t->ThumbSizeGet());
    if (depth < 32)
      for (const kiv::plugin::mov::IBox* c = box->Child(); c; c = c->Next()) todo.emplace_back(c, depth + 1);
  }
  return "";
}

// The thumbnail into a file: the element's first, else the file's own box, and which way it came.
int writeThumb(const PlayOptions& o, kiv::stream::IDemuxer& element) {
  unsigned int size = 0;
  unsigned char* data = nullptr;
  std::string jpeg, via = "the element";
  if (element.Get("thumbsize", size) && element.Get("thumbdata", data) && size > 0 && data)
    jpeg.assign(reinterpret_cast<const char*>(data), size);
  if (jpeg.empty()) {
    jpeg = thumbFromBoxes(o.path);
    via = "the file's 'thum' box (the element gives none for this file)";
  }
  if (jpeg.empty())
    return failed(o.path, "no thumbnail: the element gives none and the file has no 'thum' box that holds one");
  Output out;
  if (!out.Open(o.thumbOut)) return failed(o.thumbOut, "cannot write: " + out.Close());
  out.Write(jpeg.data(), jpeg.size());
  const std::string error = out.Close();
  if (!error.empty()) return failed(o.thumbOut, "writing failed: " + error);
  PrintLine("thumbnail: " + std::to_string(jpeg.size()) + " bytes from " + via + " to " + o.thumbOut);
  return kOk;
}

int usage(const std::string& message) { return UsageError("play: " + message, "play"); }

// The text track as SubRip, read apart from the element (TextTrack.h tells why).
int writeText(const PlayOptions& o) {
  std::vector<TextSample> samples;
  bool found = false;
  const std::string problem = ReadTextTrack(o.path, samples, found);
  if (!found) return failed(o.path, "no text track to write to " + o.textOut);
  if (!problem.empty()) return failed(o.path, "the text track: " + problem);
  Output out;
  if (!out.Open(o.textOut)) return failed(o.textOut, "cannot write: " + out.Close());
  const std::string srt = SrtOfSamples(samples);
  out.Write(srt.data(), srt.size());
  const std::string error = out.Close();
  if (!error.empty()) return failed(o.textOut, "writing failed: " + error);
  long long cues = 0;
  for (const TextSample& s : samples) cues += !s.text.empty();
  PrintLine("text: txt, " + std::to_string(samples.size()) + " samples (" + std::to_string(cues) + " with text), " +
            seconds(samples.empty() ? 0 : samples.back().end * 1000000) + " to " + o.textOut);
  return kOk;
}

}  // namespace

int Play(const PlayOptions& o) {
  // Opening an output truncates it: none may be the input, nor two of them one file.
  const std::string* outs[] = {&o.videoOut, &o.audioOut, &o.thumbOut, &o.textOut};
  for (const std::string* out : outs) {
    if (out->empty()) continue;
    if (*out == o.path || SameFile(*out, o.path)) return usage("the output '" + *out + "' is the input");
    for (const std::string* other : outs)
      if (other < out && !other->empty() && (*other == *out || SameFile(*other, *out)))
        return usage("two outputs are one file: '" + *out + "'");
  }
  if (o.from >= 0 && o.to >= 0 && o.to < o.from) return usage("--to comes before --from");
  const std::string refused = NotAFile(o.path);
  if (!refused.empty()) return failed(o.path, refused);

  LogNotes notes;
  PlayRun run;
  // Before any thread is made: each inherits the blocked signals.
  StopOnSignal signals(run.end);
  Demux d;
  const std::string problem = NewDemux(o.path, d);
  if (!problem.empty()) return failed(o.path, problem);
  run.holdFirst = o.seek >= 0;
  Track video("video", 0), audio("audio", 1);
  video.port = d.video;
  audio.port = d.audio;
  TrackSink videoSink(video, run, o.packets), audioSink(audio, run, o.packets);
  if (!videoSink.LinkFrom(d.video) || !audioSink.LinkFrom(d.audio)) return failed(o.path, "cannot link the sinks");
  d.element->SetMessageHandler([&](Message& msg) {
    if (o.messages) PrintMessage(msg);
    run.end.Take(msg);
  });
  if (o.live && !d.element->Set("live", true)) return failed(o.path, "the demuxer takes no \"live\"");
  // No element property carries the tables' way: the element's own seam sets it before Open.
  if (o.tablesOnFile) {
    auto* mp4 = dynamic_cast<kiv::plugin::mov::Mp4Demuxer*>(d.element.get());
    if (!mp4) return failed(o.path, "the demuxer cannot leave tables on file");
    mp4->TablesOnFile(true, static_cast<int>(o.switchSize));
  }

  if (!d.element->Open()) {
    failed(o.path, "cannot open it as a movie the plug-in plays");
    if (o.tablesOnFile)
      std::fprintf(stderr,
                   "boxweave: note: with --tables-on-file a track with composition offsets (ctts) cannot be read "
                   "from tables on file; boxweave info --summary tells which tracks would be\n");
    notes.Print();
    return kFailed;
  }
  // Whatever happens from here, the element goes down before the sinks and outputs do.
  struct Down {
    kiv::stream::IDemuxer& e;
    ~Down() {
      e.Stop();
      e.Close();
    }
  } down{*d.element};

  if (!o.textOut.empty())
    if (int status = writeText(o)) return status;
  if (!video.port->Media() && !audio.port->Media()) {
    if (!o.textOut.empty()) return kOk;  // a file of text alone
    failed(o.path, "no video or audio track the plug-in plays (boxweave info tells what the file holds)");
    notes.Print();
    return kFailed;
  }
  if (!o.thumbOut.empty())
    if (int status = writeThumb(o, *d.element)) return status;
  for (Track* t : {&video, &audio}) {
    const std::string& path = t == &video ? o.videoOut : o.audioOut;
    if (path.empty()) continue;
    if (!t->port->Media()) return failed(o.path, std::string("no ") + t->kind + " track to write to " + path);
    if (!t->out.Open(path)) return failed(path, "cannot write: " + t->out.Close());
  }
  if (o.from >= 0) d.element->PlayRangeFrom(o.from);
  if (o.to >= 0) d.element->PlayRangeTo(o.to);

  if (!d.element->Start()) {
    failed(o.path, "the demuxer does not start");
    notes.Print();
    return kFailed;
  }
  if (run.holdFirst && run.end.WaitFor([&] { return run.arrived; })) {
    // The element's thread waits in the sink with the first packet; the seek comes from here, as a
    // host's control thread would make it.
    const bool ok = d.element->Set("seek", o.seek);
    PrintLine("seek ms=" + std::to_string(o.seek) + (ok ? "" : " refused"));
    run.end.Notify([&] { run.released = true; });
  }
  const std::string end = run.end.Wait();
  d.element->Stop();

  int status = kOk;
  bool audioWritten = false;
  for (Track* t : {&video, &audio}) {
    const std::string error = t->out.Close();
    if (!error.empty()) status = failed(t->out.Path(), "writing failed: " + error);
    if (t == &audio) audioWritten = error.empty();
  }
  // Also after "error": the samples that came are a playable file of their own.
  IMedia* sound = audio.port->Media();
  if (!o.audioOut.empty() && audioWritten && isPcm(sound)) {
    int rate = 0, channels = 0;
    sound->Get("rate", rate);
    sound->Get("channel", channels);
    const long long data = audio.bytes;
    const std::string error = PatchWaveHeader(o.audioOut, static_cast<unsigned>(rate), static_cast<unsigned>(channels),
                                              static_cast<unsigned long long>(data));
    if (!error.empty()) status = failed(o.audioOut, "writing failed: " + error);
  }
  for (const Track* t : {&video, &audio})
    if (t->port->Media()) printSummary(*t);
  if (video.prefixed)
    std::fprintf(stderr,
                 "boxweave: warning: %s: %lld of %lld video packets hold units in length-prefix form, not behind start "
                 "codes (the first: packet %lld); a reader of H.264 Annex-B loses them\n",
                 Printable(o.videoOut).c_str(), video.prefixed, video.packets, video.firstPrefixed);
  if (audio.bare)
    std::fprintf(stderr,
                 "boxweave: warning: %s: %lld of %lld audio packets came without an ADTS header and are written as "
                 "bare AAC frames (the plug-in did not understand the track's sample description)\n",
                 Printable(o.audioOut).c_str(), audio.bare, audio.packets);
  if (const int stopped = StopOnSignal::Status(end)) {
    if (status != kOk) return status;
    failed(o.path, "stopped by " + end + " after " + std::to_string(video.packets + audio.packets) +
                       " packets; what came is written");
    return stopped;
  }
  if (end == "error") {
    failed(o.path, "reading stopped with an error after " + std::to_string(video.packets + audio.packets) + " packets");
    notes.Print();
    return kFailed;
  }
  return status;
}

Verb AddPlay(CLI::App& app) {
  auto o = std::make_shared<PlayOptions>();
  CLI::App* cmd = app.add_subcommand("play", "play a .mov or .mp4 file through the plug-in's demuxer element");
  cmd->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  cmd->footer(
      "Creates the demuxer element by keywords, links a sink element to its video port and one to its\n"
      "audio port, runs the element's thread to the end and prints every message the element sends\n"
      "(\"eos\", \"error\"), then a line for each track: codec, packets, bytes, first and last time,\n"
      "duration. Times are those of the file (the packet's time less its clock base), in whole\n"
      "milliseconds as the element gives them: the decoding time from the sample tables, without\n"
      "composition offsets. Only the first video and the first audio track play.\n"
      "Exit status 1 when FILE cannot be opened or has no video or audio track, when the element\n"
      "ends with \"error\", or when an output cannot be written. SIGINT or SIGTERM stops the run with\n"
      "its outputs closed whole (exit 130 or 143); a second signal ends the process at once.");
  cmd->add_option("FILE", o->path, "the movie file")->required();
  cmd->add_option("--video-out", o->videoOut,
                  "write the video as an Annex-B stream (H.264 or H.265, by the track's codec): the parameter "
                  "sets of the track, then each packet as it comes; a JPEG track gives its pictures one behind "
                  "the other (.mjpeg)")
      ->type_name("F");
  cmd->add_option("--audio-out", o->audioOut,
                  "write the audio packets as they come: AAC with ADTS headers, or PCM as a 16-bit WAVE file")
      ->type_name("F");
  cmd->add_option("--text-out", o->textOut,
                  "write the text track as SubRip, a cue a sample that holds text; the element gives no text "
                  "track, so it is read apart from the element")
      ->type_name("F");
  cmd->add_flag("--packets", o->packets,
                "print a line a packet in the form of ffprobe -show_packets -of compact (pts_time and dts_time "
                "both show the packet's one time; stream_index is 0 for video and 1 for audio, whatever the "
                "file's track order)");
  cmd->add_option("--from", o->from, "start the play range: the start seeks forward to the key frame at or after MS")
      ->type_name("MS")
      ->check(CLI::Range(0LL, 0x7fffffffffffLL));
  cmd->add_option("--to", o->to, "end the play range: a packet later than MS ends the run with \"eos\"")
      ->type_name("MS")
      ->check(CLI::Range(1LL, 0x7fffffffffffLL));
  cmd->add_option("--seek", o->seek,
                  "once the first packet has arrived, set the element's \"seek\" property from the host's thread (a seek "
                  "forward lands on the key frame at or after MS, one back on the key frame at or before)")
      ->type_name("MS")
      ->check(CLI::Range(0LL, 0x7fffffffffffLL));
  cmd->add_flag("--live", o->live, "set \"live\": packets leave at their time on the clock, as a camera's would");
  CLI::Option* onFile = cmd->add_flag(
      "--tables-on-file", o->tablesOnFile,
      "read the sample tables of a track whose 'stbl' box has --switch-size bytes or more where they lie in the "
      "file, a block at a time, instead of expanding them into memory: memory stays flat however long the file. "
      "A file with such a track that has composition offsets (ctts, B-frames) does not open this way");
  cmd->add_option("--switch-size", o->switchSize,
                  "with --tables-on-file, the size of a 'stbl' box from which its tables stay on file (default "
                  "65536; 1 takes every track that way)")
      ->type_name("BYTES")
      ->check(CLI::Range(0LL, 0x7fffffffLL))
      ->needs(onFile);
  cmd->add_option("--thumb-out", o->thumbOut,
                  "write the thumbnail JPEG: the element's \"thumbdata\", or else the file's 'thum' box; exit 1 "
                  "without one")
      ->type_name("F");
  return {cmd, [o] { return Play(*o); }};
}

}  // namespace boxweave
