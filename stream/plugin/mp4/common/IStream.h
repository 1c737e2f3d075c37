// One track of one file, on the muxing and on the demuxing side. A codec class derives from IStream,
// builds the track's box tree (muxConfig), rewrites payloads on the way to the file and back, and
// records one ChunkParam a sample in the chunk list of its "stbl". The tables themselves are derived
// from that list when the file is closed (Stbl.h).
//
// Muxing, as the engine drives it:
//   IStream::New(ap) with "fcc", "trunkid", "container" (and "keys");
//   the four flags _use64, _version1, _concate, _fragmented, and "frameRate" for video;
//   MuxReset(); MuxConfig(mdat, media, tags, para); the engine adds Track() to "moov";
//   AddPacket(packet, io, leader) for every packet, leader = the leading track's Duration();
//   CleanFifoData(io, videoDuration) at the end; MuxUpdate(movieScale, keepEmpty); delete.
// Demuxing: IStream::New(fcc, keys, trackId); DemuxConfig(mdat, trak, param); DemuxReset();
// packets through GetPacket and demuxUpdatePacket; delete.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "stream/base/AttrSet.h"
#include "stream/base/Convert.h"
#include "stream/base/io/IO.h"
#include "stream/base/reflect/Object.h"
#include "stream/core/Fifo.h"
#include "stream/plugin/mp4/common/IListFile.h"

namespace kiv {
namespace base {
class IOFileBuffer;
}
namespace stream {
class IMedia;
class Packet;
}  // namespace stream

namespace plugin {
namespace mov {

class IBox;
class IStblFile;
enum class StblKind;
class cmdhd;
class chdlr;
class cminf;
class calis;
class videoTags;
class StreamDemuxer;

using kiv::base::AttrSet;
using kiv::base::IO;
using kiv::stream::IMedia;
using kiv::stream::Packet;

// The engine's parameters, handed to every track. Owned by the engine.
struct MuxerParam {
  bool fixedRate = false;  // every sample of a track has the same duration
  char drive = 'd';        // drive letter of the temporary files
  int rsvdSeconds = -1;    // 0 or more: the chunk list spills to a temporary file; above 0 it also
                           // sizes the list's reservation
  int planSeconds = -1;    // above 0: replaces the longest recording the reservations are sized for
};

class IStream : public kiv::base::Object {
 public:
  using PacketFifo = kiv::stream::Fifo<Packet*, void (*)(Packet*&)>;
  // The name is the codec's short name ("h264", "mp4a"); it is part of every temporary file name.
  explicit IStream(const char* name);
  ~IStream() override;
  IStream(const IStream&) = delete;
  IStream& operator=(const IStream&) = delete;

  // Muxing side: "fcc" (required) and "keys" make the search "mov-stream-<fcc>[-<keys>]"; the new
  // stream takes "trunkid" and "container" from ap. Null with a log line.
  static IStream* New(AttrSet& ap);
  // Demuxing side: "mov-stream-<fcc>", with the track id set. Null with a log line.
  static IStream* New(const char* fcc, const char* keys, int trackId);

  // ---- virtual operations, in table order
  // "trunkid" (base 0) and "container" (base 16), then the base.
  bool fromAttrSet(const AttrSet& ap) override;
  virtual bool SetTfra(IBox* tfra);
  virtual bool createmoof(IO& io, bool isVideo, unsigned int count, unsigned int delta, bool last);
  virtual void MuxUpdateDuration(IO& io);
  // Builds the trak tree from the media and the profile (tags is the videoTags object).
  virtual bool muxConfig(kiv::base::Object* tags) = 0;
  virtual void muxReset();
  virtual bool muxUpdate();
  virtual bool muxTagSet(videoTags* tags);
  // The one path of a packet into the tables. False only for a packet of another media.
  virtual bool AddPacket(Packet& packet, IO& io, unsigned long long leader);
  // Writes what the track still holds back, at the end of the file.
  virtual bool CleanFifoData(IO& io, unsigned long long videoDuration);
  // mdat moved by delta: every chunk position moves with it.
  virtual bool UpdateChunkList(long long delta);
  virtual bool UpdateVfiChunkList(long long delta);
  // Appends the packet's record; returns its size (0 for a negative size).
  virtual int AddChunk(const Packet& packet, unsigned long long offset, int flag);
  // Writes the packet at the end of the output and records it; returns the bytes written.
  virtual long long AddData(IO& io, Packet& packet, unsigned long long leader);
  // Bytes of a packet's payload that are not written (a header the file does not keep).
  virtual int MuxOffset(const Packet& packet);
  virtual int MuxAlign(int align);
  virtual bool demuxConfig(kiv::base::Object* param) = 0;
  virtual bool demuxReset();
  virtual Packet* GetPacket(IO& io);
  // Turns a sample read from the file back into what downstream expects.
  virtual Packet* demuxUpdatePacket(IO& io, Packet* packet);

  // The boxes of every kind of track between its header and its sample table, in their order: edts
  // with an empty elst if asked for, then mdia with mdhd (language set), hdlr, and minf with the media
  // header given, a data handler dhlr if asked for (subtype and name from the profile), and dinf with
  // dref and alis. The caller adds stbl to minf and fills mdhd's and hdlr's fields. Needs no stream:
  // the trak builders of the codecs (AvcTrak.h) use it for tracks of any base.
  struct MediaBoxes {
    cmdhd* mdhd;
    chdlr* hdlr;
    cminf* minf;
    calis* alis;
  };
  static MediaBoxes addMediaBoxes(IBox* trak, unsigned char version, bool edts, uint16_t language,
                                  IBox* mediaHeader, bool dataHandler, const void* dataHandlerName,
                                  unsigned nameLength, uint32_t dataRefType);

  // ---- plain operations
  int TrackID() const { return _trackId; }
  void TrackID(int id) { _trackId = id; }
  IBox* Track() const { return _trak; }
  void Track(IBox* trak) { _trak = trak; }
  long long CreateTime() const { return _createTime; }
  void CreateTime(long long t) { _createTime = t; }
  long long TimeScale() const { return _scale.Scale(); }
  void TimeScale(long long scale) { _scale.Scale(scale); }
  // Milliseconds.
  long long Duration() const { return _duration; }
  long long DurationRenew();
  long long DurationInTimeScale();
  IMedia* Media() const { return _media; }
  unsigned EntryCount() const { return _entryCount; }
  void MuxReset();
  void MuxResetPts() { _firstPts = -1; }
  // Once at the end: tkhd, elst and mdhd from the recording; an empty track leaves the tree unless
  // keepEmpty (its trak is then deleted and Track() is null).
  bool MuxUpdate(long long movieScale, bool keepEmpty);
  bool MuxUpdateTkhdDuration(unsigned long long duration);
  bool MuxUpdateMdhdDuration(unsigned long long duration);
  bool MuxConfig(IBox* mdat, IMedia* media, kiv::base::Object* tags, MuxerParam* para);
  void MuxParamSet(MuxerParam* para) { _para = para; }
  std::vector<ChunkParam>* MuxChunkList() const { return _chunkList; }
  bool MuxTagSet(videoTags* tags) { return muxTagSet(tags); }
  bool DemuxReset();
  bool DemuxConfig(IBox* mdat, IBox* trak, kiv::base::Object* param);
  // Time and file position of each fragment, for "tfra".
  std::vector<std::pair<uint32_t, uint32_t>>& MfraInfo() { return _mfraInfo; }

  // ---- state. Public: the engine sets the flags and _addSamples, the demux side reads _scale.
  uintptr_t _container = 0;  // the owning engine's address
  int _trackId = 0;
  // Made by muxConfig and handed to "moov", which owns it; on the demuxing side the parsed box.
  // A trak that never got a parent (a failed muxConfig) goes with the stream.
  IBox* _trak = nullptr;
  IBox* _mdat = nullptr;  // not owned
  std::vector<std::pair<uint32_t, uint32_t>> _mfraInfo;
  bool _demuxSide = false;
  IMedia* _media = nullptr;  // muxing: the input's, not owned; demuxing: made here, owned
  long long _createTime = 0;
  long long _duration = 0;  // ms
  kiv::base::TimeScale _scale;
  int _chunkLeads = 0;  // 1: this track writes its groups without waiting for the leader
  MuxerParam* _para = nullptr;  // not owned
  unsigned* _sizeList = nullptr;  // fragment mode: sizes of the packets in the fifo
  unsigned* _ptsList = nullptr;   // fragment mode: their durations
  unsigned _sizeCount = 0;
  unsigned _ptsCount = 0;
  std::vector<ChunkParam>* _chunkList = nullptr;  // owned by the track's cstbl
  unsigned _entryCount = 0;
  long long _firstPts = -1;  // -1: no packet since the last reset
  unsigned long long _packetIndex = 0;
  IListFile* _listFile = nullptr;
  long long _elapsed = 0;  // ns
  long long _elapsedExtra = 0;
  unsigned _rsvdSize = 4096;
  bool _use64 = false;
  bool _version1 = false;
  bool _concate = false;
  bool _fragmented = false;
  int _planSeconds = 1800;
  unsigned _addSamples = 0;
  long long _lastPts = 0;
  StreamDemuxer* _demuxer = nullptr;
  int _groupFrames = 1;
  int _gop = 1;

 protected:
  // The grouping of the video tracks works on the stream's scratch arrays, fifo and tables.
  friend class VideoChunks;

  // The profile a muxConfig is given, or null ("!tags" when it is some other object).
  static videoTags* profileOf(kiv::base::Object* tags);
  // The demuxing side's own media description of this codec, in place of any earlier one; the stream
  // holds its reference from now on.
  bool newDemuxMedia(const char* codec);

  // The engine's parameters, or the defaults when none were given.
  const MuxerParam& param() const;
  // The scratch arrays of fragment mode, n elements each.
  void allocScratch(unsigned n);
  void pushScratch(unsigned size, unsigned pts);
  // A sample table of the kind under stbl. In table-on-file mode it is the _file form on a buffer of
  // its own over "<drive>:/<table>.<name>.<tags>" reserving `reserved` bytes, behind the filler that
  // aligns the output in front of the table when the buffer went to a file; the stream keeps the
  // buffer and feeds the table in concateFill. Otherwise the plain table (reserved is not used).
  void addTable(IBox* stbl, StblKind kind, const void* tags, long long reserved);
  // The same with the "stts" whose records stand for `count` samples each (cstts), for tracks whose
  // record is not one sample (PCM) or that take the plain form (JPEG).
  void addCountedStts(IBox* stbl, const void* tags, long long reserved);
  // Table-on-file mode: hands the records of the chunk list to each table, then empties the list.
  void concateFill();
  // Whether mdat holds anything yet (a following track writes nothing before).
  bool mdatHasContent() const;
  // Holds the packet in the track's fifo of grouped samples; false when it could not be held (logged).
  bool holdInFifo(PacketFifo& fifo, Packet& packet);
  // Grows mdat's size field by n (the 64-bit one in that form).
  void growMdat(long long n);

  unsigned _scratchMax = 0;

 private:
  void addTableOf(IBox* stbl, StblKind kind, const void* tags, long long reserved, bool countedStts);
  // Table-on-file mode: a table of the track and the buffer it writes into, owned by the stream.
  struct TableFile {
    IStblFile* table;
    kiv::base::IOFileBuffer* buffer;
  };
  std::vector<TableFile> _tableFiles;  // in the order the tables stand in the stbl
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
