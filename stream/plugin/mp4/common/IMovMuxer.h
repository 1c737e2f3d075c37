// The engine that writes one movie file: it owns the box tree and the tracks, and it alone decides
// the order of what goes to the file.
//
// Layout of a file it writes:   ftyp | mdat header, then every payload as it comes | moov
// The mdat header is written at Open with a provisional size and patched at Close; moov, with all
// the tables, is written once, at Close, behind the last payload. Nothing is reserved for moov, so a
// recording cut off holds no tables: the fragmented muxer is the durable form.
//
// Interleaving: the engine keeps the length of the leading track (video, or audio when the profile
// says audio_chunk_first) in _duration_ms and hands it to every track with each packet; a following
// track holds its packets until its own length catches up (see IStream::AddPacket).
#pragma once

#include <mutex>
#include <vector>

#include "stream/base/AttrSet.h"
#include "stream/base/Convert.h"
#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IMov.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace stream {
class IMedia;
class Packet;
}  // namespace stream

namespace plugin {
namespace mov {

class videoTags;

class IMovMuxer : public IMov {
 public:
  // `Hash` of "mp4": the file type of the mp4 flavour, whose brands the engine writes itself.
  static constexpr unsigned kFileTypeMp4 = 0x9d7939c4u;

  IMovMuxer();
  // Frees the tracks and the tree still there, and the profile _vidtag points at, whoever made it.
  ~IMovMuxer() override;

  // Builds the tree and the tracks, and writes ftyp and the mdat header. Once, on an open stream.
  virtual bool Open(kiv::base::IO& io, std::vector<kiv::stream::IMedia*>& list, kiv::base::AttrSet& ap);
  // Empties the tracks' queues, writes moov behind mdat, the thumbnail, the final mdat size, and
  // drops tracks and tree.
  virtual bool Close(kiv::base::IO& io);
  // Hands a packet to the track of its media, under the engine's lock; false when no track takes it.
  virtual bool Process(kiv::base::IO& io, kiv::stream::Packet& packet);
  // A descendant's step after each packet taken.
  virtual bool process(kiv::base::IO& io, kiv::stream::Packet& packet);
  // Makes the tree and the brands; nothing when the tree is there.
  virtual bool Config();
  // A track for one media, its trak joined to moov; null on failure.
  virtual IStream* AddStream(kiv::stream::IMedia* media, kiv::base::AttrSet& ap);
  // Closes each track's tables and finds the movie duration.
  virtual void updateStream(bool keepEmpty);
  // Fills mvhd.
  virtual void updateBox();
  // Closes the tracks and the movie header and writes moov where the stream stands.
  virtual void updateMoov(kiv::base::IO& io, bool keepEmpty);
  virtual void clearStream();
  // Writes what the tracks still hold back: video first, then audio up to the video's length.
  virtual bool ClearRemainData(kiv::base::IO& io);
  virtual bool StreamConfig(kiv::base::IO& io, std::vector<kiv::stream::IMedia*>& list, kiv::base::AttrSet& ap);
  // The records a track reserves; a descendant's choice (1 for video, 0 for audio).
  virtual bool SetRsvdSize(IStream* stream, unsigned kind);
  // With `thumb`, reserves the thumbnail's space at the end of moov.
  virtual bool AddThumbBox();
  // Puts the JPEG beside the output file into the reserved space.
  virtual bool UpdateThumbBox(kiv::base::IO& io);

  // Seconds since 1904-01-01, from the local clock.
  static unsigned long long getTimeStamp();

  // The host's one seam for two storage modes that no element property carries (a device sets them
  // from its own configuration): with spill, each track's sample list spills to a temporary file
  // when full; with tablesOnFile, each table is written to a file of its own while recording and
  // copied in at Close. Both are off by default; set them before Open.
  void StorageModes(bool spill, bool tablesOnFile);
  // The same seam for files past 4 GiB: with `use64` the mdat takes the 64-bit size form and every
  // track writes "co64". Without it, no payload is taken that would end past `limit` (the reach of
  // 32-bit offsets; a smaller value stands in for it in tests), so no offset ever wraps: Process
  // refuses the packet, and Close writes no moov if held-back packets passed it all the same. Set
  // before Open.
  static constexpr unsigned long long kLimit32 = 0xffffffffull;
  void LargeFile(bool use64, unsigned long long limit = kLimit32);
  // A packet was refused, or the file closed without moov, because 32-bit offsets could not reach.
  bool PastLimit() const { return _past_limit; }

  IBox* _ftyp = nullptr;
  IBox* _mdat = nullptr;
  IBox* _moov = nullptr;
  unsigned _next_track_id = 0;             // number of the first track, from track_id_start
  unsigned long long _movie_duration = 0;  // mvhd duration, in movie time scale units
  MuxerParam _para;                        // handed to each track
  videoTags* _vidtag = nullptr;            // the profile; property "vidtag"
  unsigned _file_type = 0;                 // Hash of the type's name
  kiv::base::Fraction _frame_rate;         // set on every video track as "frameRate"
  // These four are false but for _fragmented, which the fragmented muxer sets.
  bool _use64 = false;       // mdat with a 64-bit size; tracks use co64
  bool _version1 = false;    // mvhd and the tracks' headers with 64-bit times
  bool _concate = false;     // tracks keep their tables in files of their own
  bool _fragmented = false;  // moof/mdat pairs: updateMoov writes nothing
  unsigned _add_samples = 0;          // given to each track ahead of a packet
  long long _first_pts = 0;           // milliseconds, from the first video packet; 0 until then
  std::mutex _mutex;  // guards Process
  bool thumb = false;  // property: reserve a thumbnail in the file
  IBox* _thumb = nullptr;

 private:
  // True when `bytes` more would end the media data past the reach of 32-bit offsets (never with
  // _use64); notes it and logs why.
  bool passesLimit(kiv::base::IO& io, unsigned long long bytes);
  unsigned long long _limit32 = kLimit32;
  bool _past_limit = false;

  // The profile made by the constructor. A host that hands its own through "vidtag" replaces the
  // pointer; the first one is kept until the engine goes, so nothing that saw it dangles.
  videoTags* _own_vidtag = nullptr;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
