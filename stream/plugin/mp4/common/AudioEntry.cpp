#include "stream/plugin/mp4/common/AudioEntry.h"

#include "stream/core/IMedia.h"
#include "stream/plugin/mp4/VideoTag.h"
#include "stream/plugin/mp4/common/Box.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"

namespace kiv {
namespace plugin {
namespace mov {

std::string ReadAudioKeys(IMedia* media, int& rate, int& channels, int& width, int& depth, const char* last,
                          int& lastValue) {
  if (!media || !media->Get("rate", rate)) return "!_media->Get(\"rate\", rate)";
  if (!media->Get("channel", channels)) return "!_media->Get(\"channel\", chn)";
  if (!media->Get("width", width)) return "!_media->Get(\"width\", width)";
  if (!media->Get("depth", depth)) return "!_media->Get(\"depth\", depth)";
  if (!media->Get(last, lastValue)) return std::string("!_media->Get(\"") + last + "\", " + last + ")";
  return std::string();
}

IStream::MediaBoxes NewAudioTrak(const videoTags& tags, bool version1, IBox*& trak, ctkhd*& tkhd) {
  const unsigned char version = version1 ? 1 : 0;
  auto* box = new ctrak();
  trak = box;
  tkhd = new ctkhd(version);
  box->Add(tkhd);
  return IStream::addMediaBoxes(box, version, tags.audio_has_edts, tags.audio_track_lang_id, new csmhd(),
                                tags.audio_handler_minf_present, tags.audhandlerrefcomname,
                                tags.audhandlerrefcomnamelen, tags.datareftype);
}

void FillAudioHeaders(ctkhd& tkhd, const IStream::MediaBoxes& boxes, const videoTags& tags, int trackId,
                      unsigned timescale) {
  tkhd.Flags(tags.tkhd_flags);
  tkhd._track_id = static_cast<unsigned>(trackId);
  tkhd._volume = 256;
  boxes.mdhd->_timescale = timescale;
  boxes.hdlr->_component_type = tags.audio_handler_type;
  boxes.hdlr->_component_subtype = FCC("soun");
  boxes.hdlr->_component_manufacturer = tags.manufacturer;
  boxes.hdlr->ComponentName(tags.audhandercomname, tags.audhandercomnamelen);
  boxes.alis->Flags(1);
}

void SetEvenFragmentFlags(fmp4::ctfhd& tfhd, fmp4::ctrun& trun, unsigned duration) {
  tfhd.DefaultSampleDuration(duration);
  tfhd.Flags(tfhd.Flags() | fmp4::ctfhd::kDefaultSampleDuration | fmp4::ctfhd::kDefaultBaseIsMoof);
  trun.DataOffset(0);
  trun.Flags(trun.Flags() | fmp4::ctrun::kDataOffset | fmp4::ctrun::kSampleSize);
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
