#include "stream/plugin/mp4/core/FMp4Muxer.h"

#include <memory>

#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::AttrSet;
using kiv::base::IO;
using kiv::stream::IMedia;

bool ConvertToImpl(const char* text, DurationNs& out) {
  const long long ns = kiv::base::ConvertToNs(text);
  if (ns < 0) return false;
  out.ns = ns;
  return true;
}

bool ConvertToImpl(const DurationNs& v, std::string& out) {
  out = std::to_string(v.ns);
  return true;
}

FMp4Muxer::FMp4Muxer() {
  _fragmented = true;
  _concate = false;
  // Fragments are the chunks: the tracks group nothing themselves.
  if (_vidtag) {
    _vidtag->videosampleperchunk = 0;
    _vidtag->audiosampleperchunk = 0;
  }
}

bool FMp4Muxer::Open(IO& io, std::vector<IMedia*>& list, AttrSet& ap) {
  _create_time = getTimeStamp();
  const unsigned movieScale = _vidtag ? _vidtag->movie_time_scale : 60000;
  _scale.Scale(movieScale);
  if (!Config()) {
    LOGE << "!Config()";
    return false;
  }
  ap.SetOrAdd("keys", "fragment");
  ap.SetOrAdd("pDurationPreSegment", static_cast<const void*>(&durationPreSegment.ns));
  _moofIndex = 1;
  ap.SetOrAdd("pmoofidx", static_cast<const void*>(&_moofIndex));
  if (!StreamConfig(io, list, ap)) {
    LOGE << "!StreamConfig(*io,list,ap)";
    return false;
  }
  if (!_moov || !_ftyp) {
    LOGE << "!_moov";
    return false;
  }
  updateBox();
  _mvhd = _moov->Find("mvhd");

  // mvex stands behind the trak boxes.
  _mvex = _moov->Add(new cmvex());
  _mehd = _mvex->Add(new cmehd(_version1 ? 1 : 0));
  for (IStream* st : _streams) {
    if (!st) continue;
    AddTrex(st);
    st->CreateTime(static_cast<long long>(_create_time));
    st->MuxUpdate(movieScale, true);
  }

  auto* ftyp = static_cast<cftyp*>(_ftyp);
  const unsigned cnt = ftyp->_compatible_brands_cnt;
  if (cnt < 4) {
    // The profile's list belongs to the host: the brand goes into the box's own copy.
    if (ftyp->_compatible_brands != ftyp->_brands)
      for (unsigned i = 0; i < cnt; ++i) ftyp->_brands[i] = ftyp->_compatible_brands ? ftyp->_compatible_brands[i] : 0;
    ftyp->_brands[cnt] = FCC("iso5");
    ftyp->_compatible_brands = ftyp->_brands;
    ftyp->_compatible_brands_cnt = cnt + 1;
  } else {
    LOGE << "Too many compatible brands in ftyp box!";
  }

  _ftyp->Fill(io, true);
  AddThumbBox();
  _moov->Fill(io, true);
  return true;
}

void FMp4Muxer::AddTrex(IStream* stream) {
  if (!_mvex || !stream) return;
  auto* trex = new ctrex(_version1 ? 1 : 0);
  trex->_track_id = static_cast<unsigned>(stream->TrackID());
  _mvex->Add(trex);
}

bool FMp4Muxer::Update(IStream*, IO* io) {
  if (!flush) return true;
  if (!io) return false;
  Update(io);
  io->Seek(0, kiv::Position::back);
  return io->Flush();
}

unsigned long long FMp4Muxer::runningDuration() const {
  long long longest = 0;
  for (const IStream* st : _streams)
    if (st && st->Duration() > longest) longest = st->Duration();
  return static_cast<unsigned long long>(longest);
}

bool FMp4Muxer::process(IO&, kiv::stream::Packet&) {
  _duration_ms = runningDuration();
  return true;
}

void FMp4Muxer::Update(IO* io) {
  _duration_ms = runningDuration();
  const unsigned long long duration =
      static_cast<unsigned long long>(_scale.FromMs(static_cast<long long>(_duration_ms)));
  LOGL << "_duration=" << duration;
  if (_mehd) _mehd->Duration(duration, io);
}

void FMp4Muxer::fillmfra(IO& io) {
  std::unique_ptr<IBox> mfra(new fmp4::cmfra());
  // A tfra reads its entries from outside when written: the words stay here until then.
  std::vector<std::vector<unsigned>> words;
  words.reserve(_streams.size());
  for (IStream* st : _streams) {
    if (!st) continue;
    words.emplace_back();
    std::vector<unsigned>& w = words.back();
    w.reserve(st->MfraInfo().size() * 2);
    for (const auto& e : st->MfraInfo()) {
      w.push_back(e.first);
      w.push_back(e.second);
    }
    auto* tfra = new fmp4::ctfra(0, static_cast<unsigned>(st->MfraInfo().size()), w.empty() ? nullptr : w.data());
    tfra->TrackId(static_cast<unsigned>(st->TrackID()));
    mfra->Add(tfra);
  }
  auto* mfro = new fmp4::cmfro(0);
  mfra->Add(mfro);
  mfro->MfraSize(static_cast<unsigned>(mfra->StatisticsSize()));
  mfra->Fill(io, true);
}

bool FMp4Muxer::Close(IO& io) {
  if (!_root) {
    LOGE << "!_root";
    return false;
  }
  for (IStream* st : _streams)
    if (st) st->CleanFifoData(io, 0);
  _duration_ms = runningDuration();
  fillmfra(io);
  if (!flush) Update(&io);
  clearStream();
  UpdateThumbBox(io);
  delete _root;
  _root = nullptr;
  _ftyp = _mdat = _moov = _thumb = nullptr;
  _mvex = _mehd = _mvhd = nullptr;
  return true;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterFMp4Muxer() {
  using kiv::plugin::mov::FMp4Muxer;
  using kiv::plugin::mov::IMovMuxer;
  using P = kiv::base::TProperty<FMp4Muxer>;
  kiv::plugin::mov::Reflect<FMp4Muxer>("FMp4Muxer-mp4-muxer-fmp4-fragment",
                                       {
                                           P::Member("flush", &FMp4Muxer::flush),
                                           P::Member("durationPreSegment-dps", &FMp4Muxer::durationPreSegment),
                                           P::Member("thumb", &IMovMuxer::thumb),
                                       },
                                       "quor");
}
