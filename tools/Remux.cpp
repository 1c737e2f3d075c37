// "remux": the plug-in's play and record sides in one graph. The demuxer element's output ports are
// linked straight into the muxer element's inputs; the demuxer's thread carries every packet through
// the muxer; the messages of both elements are printed.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "stream/base/Convert.h"
#include "stream/base/Message.h"
#include "stream/base/reflect/Object.h"
#include "stream/core/IMedia.h"
#include "stream/core/fw/IElement.h"
#include "stream/core/fw/IIO.h"
#include "stream/plugin/mp4/common/IMov.h"
#include "stream/plugin/mp4/common/IStream.h"
#include "tools/Cli.h"
#include "tools/Demux.h"
#include "tools/H264Reader.h"

namespace boxweave {
namespace {

using kiv::base::Message;
using kiv::stream::IMedia;

int failed(const std::string& path, const std::string& why) {
  std::fprintf(stderr, "boxweave: %s: %s\n", kiv::base::Printable(path).c_str(), why.c_str());
  return kFailed;
}

// The demuxer describes a video track by what the file's boxes say (size, profile, level, the
// parameter sets as extra data); the muxer's H.264 track also wants what only the SPS tells, and where
// the parameter sets stand. A camera graph has a parser element in between; here the host reads the
// SPS. "" on success, else the reason.
std::string completeH264(IMedia& m) {
  const unsigned char* e = m.Extra();
  const size_t n = e ? static_cast<size_t>(m.ExtraSize()) : 0;
  // The units of the extra data, behind start codes of three or four bytes.
  std::vector<std::pair<size_t, size_t>> units;  // offset, length
  for (size_t i = 0; i + 3 <= n;) {
    if (e[i] == 0 && e[i + 1] == 0 && e[i + 2] == 1) {
      if (!units.empty() && units.back().second == 0)
        units.back().second = i - units.back().first - (i > 0 && e[i - 1] == 0 ? 1 : 0);
      units.emplace_back(i + 3, 0);
      i += 3;
    } else {
      ++i;
    }
  }
  if (!units.empty() && units.back().second == 0) units.back().second = n - units.back().first;
  const std::pair<size_t, size_t>* sps = nullptr;
  const std::pair<size_t, size_t>* pps = nullptr;
  for (const auto& u : units) {
    if (u.second == 0) continue;
    const unsigned type = e[u.first] & 31u;
    if (type == 7 && !sps) sps = &u;
    if (type == 8 && !pps) pps = &u;
  }
  if (!sps || !pps) return "the video track's extra data holds no SPS and PPS";
  H264Sps parsed;
  std::string why;
  if (!ParseSps(e + sps->first, sps->second, parsed, why)) return "the video track's SPS does not parse: " + why;
  // The pointers go into the media's own extra data, which lives as long as the media.
  auto* base = const_cast<unsigned char*>(e);
  const bool ok = m.Set("interlace", !parsed.frame_mbs_only) && m.Set("chroma_format_idc", parsed.chroma_format_idc) &&
                  m.Set("bit_depth_luma_minus8", parsed.bit_depth_luma_minus8) &&
                  m.Set("bit_depth_chroma_minus8", parsed.bit_depth_chroma_minus8) && m.Set("sps", base + sps->first) &&
                  m.Set("isps", static_cast<unsigned>(sps->second)) && m.Set("pps", base + pps->first) &&
                  m.Set("ipps", static_cast<unsigned>(pps->second));
  return ok ? "" : "the video track's media takes no SPS attributes";
}

// The demuxer reads the AAC decoder configuration in the form this system writes it, with descriptor
// lengths of one byte; another writer's (ffmpeg's: four bytes) is misread, and the muxer would write
// what was misread. The ADTS headers the demuxer puts on the packets are made from the sample entry's
// rate and channels as AAC LC: a configuration that does not agree with them is made the same way.
// True when the configuration was made here.
bool completeAac(IMedia& m) {
  static const int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
  int rate = 0, channels = 0;
  if (!m.Get("rate", rate) || !m.Get("channel", channels) || channels < 1 || channels > 7) return false;
  const int* at = std::find(std::begin(kRates), std::end(kRates), rate);
  if (at == std::end(kRates)) return false;
  const unsigned index = static_cast<unsigned>(at - std::begin(kRates));
  const unsigned char* e = m.Extra();
  if (e && m.ExtraSize() >= 2) {
    const unsigned type = e[0] >> 3, rateIndex = (e[0] & 7u) << 1 | e[1] >> 7, layout = (e[1] >> 3) & 15u;
    if (type >= 1 && type <= 4 && rateIndex == index && layout == static_cast<unsigned>(channels)) return false;
  }
  const unsigned char config[2] = {
      static_cast<unsigned char>(2u << 3 | index >> 1),
      static_cast<unsigned char>((index & 1u) << 7 | static_cast<unsigned>(channels) << 3)};
  return m.Extra(config, 2);
}

}  // namespace

int Remux(RemuxOptions o) {
  if (o.format == "fmp4") o.fragmented = true;
  if (o.fragmented) {
    if (!o.format.empty() && o.format != "mp4" && o.format != "fmp4")
      return UsageError("remux: --fragmented writes MP4, not " + o.format, "remux");
    o.format = "fmp4";
  } else if (o.fragmentMs) {
    return UsageError("remux: --fragment-ms needs --fragmented", "remux");
  }
  if (o.format.empty()) {
    const std::string e = Extension(o.out);
    if (e != "mov" && e != "mp4")
      return UsageError("remux: cannot tell the format of '" + o.out + "' (use .mov, .mp4 or --format)", "remux");
    o.format = e;
  }
  // Opening the output for writing would truncate the input before a byte is read.
  if (o.out == o.in || SameFile(o.out, o.in))
    return UsageError("remux: the output '" + o.out + "' is the input '" + o.in + "'", "remux");
  const std::string refused = NotAFile(o.in);
  if (!refused.empty()) return failed(o.in, refused);

  LogNotes notes;
  RunEnd end;
  // Before any thread is made: each inherits the blocked signals.
  StopOnSignal signals(end);
  Demux d;
  const std::string problem = NewDemux(o.in, d);
  if (!problem.empty()) return failed(o.in, problem);
  d.element->SetMessageHandler([&end](Message& msg) {
    PrintMessage(msg);
    end.Take(msg);
  });
  // The demuxer first: its ports carry the tracks' media only once it is open, and the muxer takes
  // its tracks from the media of its inputs when it opens.
  if (!d.element->Open()) {
    failed(o.in, "cannot open it as a movie the plug-in plays");
    notes.Print();
    return kFailed;
  }
  struct Down {
    kiv::stream::IDemuxer& e;
    ~Down() {
      e.Stop();
      e.Close();
    }
  } down{*d.element};

  kiv::base::AttrSet ap;
  kiv::base::Object::AttrSetInit(
      ap, nullptr, o.format == "mov" ? "mov-muxer" : o.format == "fmp4" ? "mp4-muxer-fragment" : "mp4-muxer");
  std::unique_ptr<kiv::stream::ISink> mux(kiv::base::Object::New<kiv::stream::ISink>(ap));
  if (!mux) return failed(o.out, "the plug-in has no muxer for " + o.format);
  mux->SetMessageHandler(PrintMessage);
  if (!mux->setString("url", o.out.c_str())) return failed(o.out, "the muxer takes no url");
  if (o.fragmentMs && !mux->Set("durationPreSegment-dps", o.fragmentMs * 1000000LL))
    return failed(o.out, "the muxer takes no fragment length");
  int linked = 0;
  for (kiv::stream::IPort* port : {d.video, d.audio}) {
    if (!port->Media()) continue;  // no such track in the file
    if (port == d.video && std::string(port->Media()->Codec()) == "h264") {
      const std::string problem = completeH264(*port->Media());
      if (!problem.empty()) return failed(o.in, problem);
    }
    if (port == d.audio && std::string(port->Media()->Codec()) == "aac" && completeAac(*port->Media()))
      std::fprintf(stderr,
                   "boxweave: note: %s: the AAC decoder configuration read from the file does not agree with its "
                   "sample entry; written as AAC LC of the entry's rate and channels\n",
                   kiv::base::Printable(o.in).c_str());
    if (!mux->LinkFrom(port)) return failed(o.out, "cannot link the demuxer to the muxer");
    ++linked;
  }
  if (!linked) {
    failed(o.in, "no video or audio track the plug-in plays (boxweave info tells what the file holds)");
    notes.Print();
    return kFailed;
  }
  auto* sink = dynamic_cast<kiv::stream::IIO*>(mux.get());
  if (!sink) return failed(o.out, "the muxer has no stream to write to");
  if (!mux->Open()) {
    failed(o.out, "cannot write the movie");
    notes.Print();
    return kFailed;
  }

  // A medium the muxer's tracks do not take (the muxer logs why) would be left out of OUT without a
  // word: the remux copies every track it found, or nothing.
  if (auto* engine = dynamic_cast<kiv::plugin::mov::IMov*>(mux.get())) {
    for (kiv::stream::IPort* port : {d.video, d.audio}) {
      IMedia* media = port->Media();
      if (!media) continue;
      bool taken = false;
      for (const kiv::plugin::mov::IStream* st : engine->_streams) taken = taken || (st && st->Media() == media);
      if (taken) continue;
      mux->Close();  // without a packet the muxer removes the file
      failed(o.in, std::string("the muxer takes no track for its ") + (port == d.video ? "video" : "audio") + " (" +
                       media->Codec() + ")");
      notes.Print();
      return kFailed;
    }
  }

  bool started = d.element->Start();
  const std::string how = started ? end.Wait() : "";
  d.element->Stop();  // the thread is joined: no packet reaches the muxer any more
  std::string writeError = sink->io ? sink->io->Error() : "";
  const bool closed = mux->Close();
  if (writeError.empty()) writeError = sink->IOError();
  if (!writeError.empty()) {
    failed(o.out, "writing failed: " + writeError);
    RemoveOutput(o.out);
    return kFailed;
  }
  if (!started || !closed) {
    failed(started ? o.out : o.in, started ? "closing the movie failed" : "the demuxer does not start");
    notes.Print();
    return kFailed;
  }
  if (const int stopped = StopOnSignal::Status(how)) {
    failed(o.in, "stopped by " + how + "; " + o.out + " holds what came before");
    return stopped;
  }
  if (how == "error") {
    failed(o.in, "reading stopped with an error; " + o.out + " holds what came before");
    notes.Print();
    return kFailed;
  }
  return kOk;
}

Verb AddRemux(CLI::App& app) {
  auto o = std::make_shared<RemuxOptions>();
  CLI::App* cmd =
      app.add_subcommand("remux", "copy the tracks of a movie file into a new .mov, .mp4 or fragmented .mp4 file");
  cmd->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  cmd->footer(
      "Links the demuxer element's output ports straight into the muxer element's inputs in one graph:\n"
      "the demuxer opens IN, the muxer opens OUT with the media of the demuxer's ports, the demuxer's\n"
      "thread carries every packet through the muxer, and the messages of both elements are printed.\n"
      "The first video and the first audio track are copied; packet times are the demuxer's (whole\n"
      "milliseconds, decoding times). Exit status 1 when IN cannot be opened, has no video or audio\n"
      "track, or has one the muxer does not take (nothing is written), when OUT cannot be written, or\n"
      "when the demuxer ends with \"error\" (OUT then holds what came before). SIGINT or SIGTERM stops\n"
      "the copy and closes OUT whole (exit 130 or 143); a second signal ends the process at once.\n"
      "IN may be a plain or a fragmented file. With --fragmented (or --format fmp4) OUT is fragmented\n"
      "MP4 (moof/mdat pairs, the fragment index at the end), as record --fragmented writes it.\n"
      "A fragmented recording remuxed into a plain .mp4 or .mov gets a full sample index: the way to\n"
      "finish a recording that was made fragmented to survive a power loss.");
  cmd->add_option("IN", o->in, "the movie file to read")->required();
  cmd->add_option("OUT", o->out, "the file to write; its extension gives the format")->required();
  cmd->add_option("--format", o->format, "the format, whatever the extension")
      ->check(CLI::IsMember({"mov", "mp4", "fmp4"}))
      ->type_name("mov|mp4|fmp4");
  cmd->add_flag("--fragmented", o->fragmented, "write fragmented MP4 (moof/mdat pairs), as record --fragmented");
  cmd->add_option("--fragment-ms", o->fragmentMs,
                  "with --fragmented: length of a fragment (video cuts at the next key frame); default: one "
                  "GOP of video, half a second of audio")
      ->type_name("MS")
      ->check(CLI::Range(1LL, 86400000LL));
  return {cmd, [o] { return Remux(*o); }};
}

}  // namespace boxweave
