// The engine of fragmented files under the element's interface. It parses the file's head up to the
// first "moof", makes one fragment track a trak, and looks for the random-access index "mfra" at the
// end of the file. With the index each track walks its own fragments and the element can seek; without
// it the fragments are found one by one from the head while playing, each handed to its track, and
// "seek" is refused. The next packet across tracks is the one with the smallest time.
//
// A mutex orders each packet against a seek from another thread, as the plain engine does.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "stream/plugin/mp4/common/IMov.h"
#include "stream/plugin/mp4/core/demux/IParser.h"

namespace kiv {
namespace plugin {
namespace mov {

class IMp4DemuxerStreamFragment;

class FMp4Parser : public IMov, public IParser {
 public:
  FMp4Parser() = default;
  ~FMp4Parser() override;

  // Parses the head and the tracks of io's file.
  virtual bool Open(kiv::base::IO& io);
  // The next packet across tracks, by time; null when every track has ended.
  virtual kiv::stream::Packet* ProcessNormal(kiv::base::IO& io);

  // ---- IParser
  bool OpenDemuxer(kiv::base::IO& io) override;
  bool CloseDemuxer() override;
  kiv::stream::Packet* GeneratePacket(void* user) override;
  unsigned long long Duration() override { return IParser::Duration(); }
  unsigned char* GetThumbData() override;
  unsigned GetThumbSize() override;
  // Every track to the listed fragment of time ms; false without an index.
  bool Seek(long long ms) override;

  // ---- the index at the end of the file
  // True when the file's last four bytes give the size of an "mfra" that stands there.
  bool FindMfraBoxOffset(kiv::base::IO& io);
  // Reads the index and hands each track its "tfra"; false leaves the file without index.
  bool MfraBoxParse(kiv::base::IO& io);
  bool SetTfraBoxToStream();

  // ---- fragments found while playing
  // The size of the next top-level box of code fcc from pos within len bytes, 0 when none is found.
  unsigned long long FindNextTopBox(kiv::base::IO& io, unsigned long long pos, long long len, const char* fcc);
  unsigned long long FindNextMoofOffset(kiv::base::IO& io);
  // The next moof parsed, owned by the caller; null at the end or on damage.
  IBox* MoofBoxParse(kiv::base::IO& io);
  // The next moof's runs handed to their tracks; false when there is no further usable moof.
  bool UpdateStream(kiv::base::IO& io);

  IParser* AsParser() { return this; }
  const std::vector<IMp4DemuxerStreamFragment*>& FragStreams() const { return _frag_streams; }
  bool Indexed() const { return _mfraBox != nullptr; }

  unsigned long long _next_box_pos = 0;
  long long _moof_offset = 0;
  long long _frag_pts = 0;  // ms
  long long _mfraOffset = 0;
  IBox* _mfraBox = nullptr;  // owned
  uint32_t _mfra_size = 0;
  std::vector<IMp4DemuxerStreamFragment*> _frag_streams;  // owned
  kiv::base::IO* _io = nullptr;                           // the element's

 protected:
  IBox* parserRoot() override { return _root; }
  std::vector<IStream*> parserStreams() override;

 private:
  // Whether the tfra boxes hold entries of the one shape they are read in.
  bool tfraShapesKnown();
  void dropStreams();

  std::mutex _mutex;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
