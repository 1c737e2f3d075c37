#include "tools/TextTrack.h"

#include <memory>

#include "stream/base/AttrSet.h"
#include "stream/base/io/IO.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/IStream.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "stream/plugin/mp4/demux/StreamDemuxer.h"

namespace boxweave {

using kiv::plugin::mov::IBox;
using kiv::plugin::mov::IStream;

namespace {

// The sample durations of the track's "stts", in track units, for at most `samples` samples; empty
// when the box cannot be read. The plug-in's table reader gives every sample of a track with several
// durations their mean, which is no cue's time.
std::vector<long long> sampleDurations(kiv::base::IO& io, IBox* stts, size_t samples) {
  std::vector<long long> out;
  if (!stts) return out;
  const unsigned long long size = stts->Size() == 1 ? stts->ExtendedSize() : stts->Size();
  if (size < stts->PayloadOffset() + 8 || !io.Seek(stts->PayloadPostion(), kiv::Position::front)) return out;
  kiv::base::IOIntReader in(io);
  in.Read32be();  // version and flags
  const unsigned long long entries = in.Read32be();
  const unsigned long long room = (size - stts->PayloadOffset() - 8) / 8;
  out.reserve(samples);
  for (unsigned long long e = 0; e < entries && e < room && out.size() < samples; ++e) {
    const unsigned long long run = in.Read32be();
    const long long delta = in.Read32be();
    if (in.Failed()) break;
    for (unsigned long long k = 0; k < run && out.size() < samples; ++k) out.push_back(delta);
  }
  return out;
}

}  // namespace

std::string ReadTextTrack(const std::string& path, std::vector<TextSample>& samples, bool& found) {
  found = false;
  samples.clear();
  std::unique_ptr<kiv::base::IO> io(kiv::base::IO::New(path.c_str(), "rb"));
  if (!io) return "cannot open it";
  std::unique_ptr<IBox> root(IBox::New("root", 0));
  if (!root) return "no box tree";
  {
    kiv::base::IOBlockReader reader(*io, 32768);
    kiv::base::AttrSet ap;
    // The tables are read into memory, whatever their size.
    ap.Add("stbl_extern_parser_enable", "false");
    ap.Add("stbl_extern_parser_switch_stbl_size", "65536");
    ap.Add("stbl_extern_parser_keywords", "extern");
    ap.Add("stbl_extern_parser_blksize", "4096");
    root->Parse(reader, ap, true);  // what a damaged file lets be read is enough
  }
  IBox* mdat = root->Find("mdat");
  IBox* trak = root->Find("trak");
  int id = 0;
  for (; trak && trak->FourCC() == kiv::plugin::mov::FCC("trak"); trak = trak->Next(), ++id) {
    auto* stsd = dynamic_cast<kiv::plugin::mov::cstsd*>(trak->Find("stsd"));
    if (stsd && stsd->Child() && std::string(stsd->Child()->FCCString()) == "text") break;
  }
  if (!trak || trak->FourCC() != kiv::plugin::mov::FCC("trak")) return "";
  found = true;
  std::unique_ptr<IStream> st(IStream::New("txt", "txt", id));
  if (!st) return "the plug-in has no text track class";
  if (!st->DemuxConfig(mdat, trak, nullptr) || !st->_demuxer) return "the text track does not parse";
  st->DemuxReset();
  kiv::plugin::mov::StreamDemuxer* d = st->_demuxer;
  const long long count = d->GetTotalCount();
  const std::vector<long long> durations =
      sampleDurations(*io, trak->Find("stts"), count > 0 ? static_cast<size_t>(count) : 0);
  const long long scale = st->TimeScale();
  long long units = 0;  // start of the next sample, track units
  std::string problem;
  while (!d->CurrentIsInvalid() && !(d->CurrentIsEnd() && d->CurrentIsUsed())) {
    kiv::stream::Packet* p = d->GetPacket(*io, d->GetTotalCount() - 1);
    d->Next(false);
    if (!p) break;
    if (p == kiv::stream::PacketError()) {
      problem = "sample " + std::to_string(samples.size()) + " cannot be read";
      break;
    }
    p = st->demuxUpdatePacket(*io, p);
    TextSample s;
    const size_t i = samples.size();
    if (i < durations.size() && scale > 0) {
      s.start = units * 1000 / scale;
      units += durations[i];
      s.end = units * 1000 / scale;
    } else {
      s.start = p->pts / 1000000;
      s.end = s.start + p->duration / 1000000;
    }
    const unsigned char* b = p->Data();
    const size_t n = p->Size() > 0 ? static_cast<size_t>(p->Size()) : 0;
    if (b && n >= 2) {
      const size_t len = static_cast<size_t>(b[0]) << 8 | b[1];
      s.text.assign(reinterpret_cast<const char*>(b + 2), len < n - 2 ? len : n - 2);
    }
    samples.push_back(s);
    kiv::base::Release(p);
  }
  st.reset();
  return problem;
}

}  // namespace boxweave
