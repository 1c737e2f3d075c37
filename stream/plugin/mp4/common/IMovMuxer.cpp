#include "stream/plugin/mp4/common/IMovMuxer.h"

#include <time.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/Object.h"
#include "stream/core/IMedia.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/ThumbBox.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::AttrSet;
using kiv::base::IO;
using kiv::base::Object;
using kiv::stream::IMedia;
using kiv::stream::Packet;

namespace {
// Seconds from 1904-01-01, where movie times count from, to 1970-01-01.
constexpr unsigned long long kEpoch1904 = 2082844800ull;
// mvhd's own defaults, for an engine whose profile was taken away.
constexpr unsigned kDefaultMovieScale = 60000;
constexpr unsigned short kDefaultVolume = 256;

bool isVideo(IStream* st) { return st && st->Media() && st->Media()->IsVideo(); }
bool isAudio(IStream* st) { return st && st->Media() && st->Media()->IsAudio(); }
}  // namespace

IMovMuxer::IMovMuxer() {
  AttrSet ap;
  Object::AttrSetInit(ap, nullptr, "videoTags");
  _vidtag = Object::New<videoTags>(ap);
  if (!_vidtag) LOGE << "!_vidtag";
  _own_vidtag = _vidtag;
}

IMovMuxer::~IMovMuxer() {
  clearStream();
  delete _root;
  _root = nullptr;
  if (_own_vidtag != _vidtag) delete _own_vidtag;
  delete _vidtag;
}

void IMovMuxer::StorageModes(bool spill, bool tablesOnFile) {
  _para.rsvdSeconds = spill ? 0 : -1;
  _concate = tablesOnFile;
}

void IMovMuxer::LargeFile(bool use64, unsigned long long limit) {
  _use64 = use64;
  _limit32 = limit < kLimit32 ? limit : kLimit32;
}

bool IMovMuxer::passesLimit(IO& io, unsigned long long bytes) {
  if (_use64 || _fragmented) return false;
  const long long pos = io.Position();
  const unsigned long long end = (pos > 0 ? static_cast<unsigned long long>(pos) : 0) + bytes;
  if (end <= _limit32) return false;
  if (!_past_limit)
    LOGE << "media data would end at byte " << end << ", past " << _limit32
         << ", the reach of 32-bit offsets: the file needs 64-bit offsets";
  _past_limit = true;
  return true;
}

unsigned long long IMovMuxer::getTimeStamp() {
  time_t now = time(nullptr);
  struct tm local {};
  if (!localtime_r(&now, &local)) return static_cast<unsigned long long>(now) + kEpoch1904;
  const time_t back = mktime(&local);
  return static_cast<unsigned long long>(back) + kEpoch1904;
}

bool IMovMuxer::Open(IO& io, std::vector<IMedia*>& list, AttrSet& ap) {
  _create_time = getTimeStamp();
  if (!Config()) {
    LOGE << "!Config()";
    return false;
  }
  if (!StreamConfig(io, list, ap)) {
    LOGE << "!StreamConfig(io,list,ap)";
    return false;
  }
  if (!_ftyp || !_mdat) {
    LOGE << "!_ftyp||!_mdat";
    return false;
  }
  _ftyp->Fill(io, true);
  _mdat->Fill(io, true);
  return true;
}

bool IMovMuxer::Config() {
  if (_root) return true;

  bool mp4Brands = false;
  if (_file_type == kFileTypeMp4) {
    if (_use64) _version1 = false;
    mp4Brands = true;
  }

  _root = new croot();
  auto* ftyp = new cftyp();
  _root->Add(ftyp);
  auto* mdat = new cmdat(_use64 ? 1u : 0u);
  _root->Add(mdat);
  auto* moov = new cmoov();
  _root->Add(moov);
  moov->Add(new cmvhd(_version1 ? 1 : 0));
  _ftyp = ftyp;
  _mdat = mdat;
  _moov = moov;
  if (!_vidtag) return true;

  ftyp->_major_brand = FCC("qt  ");
  ftyp->_minor_version = 0;
  ftyp->_brands[0] = FCC("qt  ");
  ftyp->_brands[1] = 0;
  ftyp->_compatible_brands = ftyp->_brands;
  ftyp->_compatible_brands_cnt = 2;
  if (mp4Brands) {
    // The second brand stays a zero word: that is what the box has always written.
    ftyp->_minor_version = 1;
    ftyp->_major_brand = FCC("mp42");
    ftyp->_brands[0] = FCC("mp42");
  }

  if (_vidtag->compatible_brands_cnt != 0) {
    ftyp->_major_brand = _vidtag->major_brand;
    ftyp->_minor_version = _vidtag->minor_version;
    ftyp->_compatible_brands = _vidtag->compatible_brands;
    ftyp->_compatible_brands_cnt = _vidtag->compatible_brands_cnt;
  }

  if (_vidtag->iframe_brand) {
    const unsigned cnt = ftyp->_compatible_brands_cnt;
    if (cnt < 4) {
      // The profile's list is the host's; the brand is added to the box's own copy.
      if (ftyp->_compatible_brands != ftyp->_brands) {
        for (unsigned i = 0; i < cnt; ++i)
          ftyp->_brands[i] = ftyp->_compatible_brands ? ftyp->_compatible_brands[i] : 0;
        ftyp->_compatible_brands = ftyp->_brands;
      }
      ftyp->_brands[cnt] = FCC("ifrm");
      ftyp->_compatible_brands_cnt = cnt + 1;
    } else {
      LOGE << "Too many compatible brands in ftyp box!";
    }
  }

  _next_track_id = _vidtag->track_id_start;
  return true;
}

bool IMovMuxer::StreamConfig(IO&, std::vector<IMedia*>& list, AttrSet& ap) {
  if (list.empty()) {
    LOGE << "list.empty()";
    return false;
  }
  if (!_root) Config();
  ap.SetOrAdd("container", static_cast<const void*>(static_cast<IMov*>(this)));
  if (_streams.empty())
    for (IMedia* media : list)
      if (media) AddStream(media, ap);
  return true;
}

IStream* IMovMuxer::AddStream(IMedia* media, AttrSet& ap) {
  if (!media) {
    LOGE << "!media";
    return nullptr;
  }
  if (!_moov) {
    LOGE << "!_moov";
    return nullptr;
  }

  if (std::strcmp(media->Codec(), "hevc") == 0 && _ftyp) {
    // HEVC files carry their own brands, whatever the profile says, and count tracks from 1.
    auto* ftyp = static_cast<cftyp*>(_ftyp);
    ftyp->_major_brand = FCC("iso4");
    ftyp->_minor_version = 1;
    ftyp->_brands[0] = FCC("iso4");
    ftyp->_brands[1] = FCC("hvc1");
    ftyp->_compatible_brands = ftyp->_brands;
    ftyp->_compatible_brands_cnt = 2;
    _next_track_id = 1;
  }

  ap.SetOrAdd("fcc", media->Codec());
  ap.SetOrAdd("trunkid", std::to_string(static_cast<unsigned long long>(_next_track_id) + _streams.size()));
  ap.SetOrAdd("media", static_cast<const void*>(media));

  IStream* st = IStream::New(ap);
  if (!st) {
    LOGE << "!st";
    return nullptr;
  }
  st->_use64 = _use64;
  st->_version1 = _version1;
  st->_concate = _concate;
  st->_fragmented = _fragmented;

  if (media->IsVideo()) {
    st->SetWithType("frameRate", _frame_rate);
    SetRsvdSize(st, 1);
  } else if (media->IsAudio()) {
    SetRsvdSize(st, 0);
  }

  st->MuxReset();
  if (!st->MuxConfig(_mdat, media, _vidtag, &_para)) {
    LOGE << "!st->MuxConfig(_mdat, media, _vidtag, &_para)";
    delete st;
    return nullptr;
  }

  if (_vidtag && _vidtag->sphericaltag && media->IsVideo() && st->Track()) st->Track()->Add(new cuuid());

  _streams.push_back(st);
  _moov->Add(st->Track());
  return st;
}

bool IMovMuxer::SetRsvdSize(IStream*, unsigned) { return true; }

bool IMovMuxer::Process(IO& io, Packet& packet) {
  std::lock_guard<std::mutex> lock(_mutex);
  // Room is kept for what the tracks hold back (a chunk each): 1 MiB, or an eighth of a smaller
  // limit. Close checks again in case it was not enough.
  const unsigned long long held = std::min(1ull << 20, _limit32 / 8);
  if (_past_limit || passesLimit(io, static_cast<unsigned long long>(packet.Size() > 0 ? packet.Size() : 0) + held))
    return false;

  IStream* taker = nullptr;
  for (IStream* st : _streams) {
    if (!st || st->Media() != packet.media) continue;
    st->_addSamples = _add_samples;
    if (st->AddPacket(packet, io, _duration_ms)) {
      taker = st;
      break;
    }
  }
  if (!taker) return false;

  IStream* running = nullptr;
  const bool audioLeads = _vidtag && _vidtag->audio_chunk_first;
  if (!audioLeads) {
    if (_first_pts == 0 && packet.media && packet.media->IsVideo()) _first_pts = packet.pts / 1000000;
    if (isVideo(taker)) running = taker;
  } else if (isAudio(taker)) {
    running = taker;
  }
  if (running) _duration_ms = static_cast<unsigned long long>(running->Duration());

  return process(io, packet);
}

bool IMovMuxer::process(IO&, Packet&) { return true; }

bool IMovMuxer::Close(IO& io) {
  if (!_root || !_mdat) {
    LOGE << "!_root";
    return false;
  }
  ClearRemainData(io);
  if (passesLimit(io, 0)) {
    // Tables with wrapped offsets would send readers to the wrong bytes: better no moov at all.
    LOGE << "moov not written";
    clearStream();
    delete _root;
    _root = nullptr;
    _ftyp = _mdat = _moov = _thumb = nullptr;
    return false;
  }
  AddThumbBox();
  updateMoov(io, false);
  UpdateThumbBox(io);
  _mdat->fill(io);
  clearStream();
  delete _root;
  _root = nullptr;
  _ftyp = _mdat = _moov = _thumb = nullptr;
  return true;
}

bool IMovMuxer::ClearRemainData(IO& io) {
  for (IStream* st : _streams)
    if (isVideo(st)) st->CleanFifoData(io, 0);
  unsigned long long videoDuration = 0;
  for (IStream* st : _streams)
    if (isVideo(st)) videoDuration = static_cast<unsigned long long>(st->Duration());
  // Audio must not run on past the picture.
  for (IStream* st : _streams)
    if (isAudio(st)) st->CleanFifoData(io, videoDuration);
  return true;
}

bool IMovMuxer::AddThumbBox() {
  if (!thumb) return true;
  if (!_moov) {
    LOGE << "!_moov";
    return false;
  }
  _thumb = _moov->Add(new cthumb());
  return true;
}

bool IMovMuxer::UpdateThumbBox(IO& io) {
  if (!_thumb) return true;
  const char* u = io.URL();
  if (!u) {
    LOGE << "!io.URL()";
    return false;
  }
  std::string url(u);
  return static_cast<cthumb*>(_thumb)->ThumbDataUpdate(io, url);
}

void IMovMuxer::updateMoov(IO& io, bool keepEmpty) {
  updateStream(keepEmpty);
  updateBox();
  if (_fragmented) return;
  // The stream stands at the end of mdat: moov follows the last payload.
  if (_moov) _moov->Fill(io, true);
}

void IMovMuxer::updateStream(bool keepEmpty) {
  _duration_ms = 0x7fffffffffffffffull;
  _movie_duration = 0;
  _scale.Scale(_vidtag ? _vidtag->movie_time_scale : kDefaultMovieScale);
  const unsigned long long movieScale = static_cast<unsigned long long>(_scale.Scale());

  const bool tkhdSame = _vidtag && _vidtag->audio_tkhd_same_duration;
  const bool mdhdSame = _vidtag && _vidtag->audio_mdhd_same_duration;
  const bool same = tkhdSame || mdhdSame;

  for (IStream* st : _streams) {
    if (!st) continue;
    st->CreateTime(static_cast<long long>(_create_time));
    st->MuxUpdate(static_cast<long long>(movieScale), keepEmpty);
    if (same && !isVideo(st)) continue;
    const unsigned long long d = static_cast<unsigned long long>(st->Duration());
    if (d < _duration_ms) {
      _duration_ms = d;
      const unsigned long long trackScale = static_cast<unsigned long long>(st->TimeScale());
      if (!trackScale) {
        LOGE << "!st->TimeScale()";
        _movie_duration = 0;
      } else {
        _movie_duration = static_cast<unsigned long long>(st->DurationInTimeScale()) * movieScale / trackScale;
      }
    }
  }
  if (!same) return;

  for (IStream* st : _streams) {
    if (!isAudio(st)) continue;
    st->MuxUpdateTkhdDuration(_movie_duration & 0xffffffffull);
    if (mdhdSame) {
      if (!movieScale) {
        LOGE << "!movieScale";
        continue;
      }
      st->MuxUpdateMdhdDuration(_movie_duration * static_cast<unsigned long long>(st->TimeScale()) / movieScale);
    }
  }
}

void IMovMuxer::updateBox() {
  if (!_moov) return;
  auto* mvhd = dynamic_cast<cmvhd*>(_moov->Find("mvhd"));
  if (!mvhd) {
    LOGE << "!mvhd";
    return;
  }
  mvhd->_createtime = _create_time;
  mvhd->_modifytime = _create_time;
  mvhd->_duration = _movie_duration;
  mvhd->_volume = _vidtag ? _vidtag->pref_volume : kDefaultVolume;
  mvhd->_timescale = static_cast<unsigned>(_scale.Scale());
  // Counted from the streams, whatever number the first track had.
  mvhd->_next_track_id = static_cast<unsigned>(_streams.size() + 1);
}

void IMovMuxer::clearStream() {
  for (IStream* st : _streams) delete st;
  _streams.clear();
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
