#include "stream/plugin/mp4/core/demux/FMp4Parser.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "stream/base/AttrSet.h"
#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/common/BoxFMp4.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stsd.h"
#include "stream/plugin/mp4/common/ThumbBox.h"
#include "stream/plugin/mp4/stream/IMp4DemuxerStreamFragment.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::AttrSet;
using kiv::base::IO;
using kiv::base::IOBlockReader;
using kiv::base::IOIntReader;
using kiv::stream::Packet;

FMp4Parser::~FMp4Parser() {
  dropStreams();
  delete _mfraBox;
  _mfraBox = nullptr;
  delete _root;
  _root = nullptr;
}

void FMp4Parser::dropStreams() {
  for (IMp4DemuxerStreamFragment* st : _frag_streams) delete st;
  _frag_streams.clear();
}

std::vector<IStream*> FMp4Parser::parserStreams() {
  return std::vector<IStream*>(_frag_streams.begin(), _frag_streams.end());
}

bool FMp4Parser::OpenDemuxer(IO& io) {
  std::lock_guard<std::mutex> lock(_mutex);
  _io = &io;
  _duration_ms = 0;
  if (!_root) {
    if (!_io->Seek(0, kiv::Position::front)) {
      LOGE << "!_io->Seek(0,Position::front)";
      return false;
    }
    IOBlockReader br(*_io, 32768);
    _root = IBox::New("fmp4", 0);
    if (!_root) {
      LOGE << "!_root";
      return false;
    }
    AttrSet ap;
    if (!_root->Parse(br, ap, true)) {
      LOGE << "!_root->Parse(br,ap,true)";
      return false;
    }
  }
  const bool opened = Open(*_io);
  if (!opened) LOGE << "!Open(*_io)";
  if (!_mfraBox) {
    const long long at = _io->Position();
    IOBlockReader br(*_io, 32768);
    if (!MfraBoxParse(br)) {
      delete _mfraBox;
      _mfraBox = nullptr;
    }
    _io->Seek(at, kiv::Position::front);
  }
  return opened;
}

bool FMp4Parser::Open(IO&) {
  if (!_root) {
    LOGE << "!_root";
    return false;
  }
  for (IBox* trak = _root->Find("trak"); trak && trak->FourCC() == FCC("trak"); trak = trak->Next()) {
    auto* stsd = dynamic_cast<cstsd*>(trak->Find("stsd"));
    if (!stsd || stsd->Num() < 1 || !stsd->Child()) continue;
    const std::string name = stsd->Child()->FCCString();
    AttrSet ap;
    ap.Add("keys", "demuxer-fragment");
    ap.Add("fcc", name);
    IMp4DemuxerStreamFragment* st = IMp4DemuxerStreamFragment::New(ap);
    if (!st) continue;
    st->TrackID(static_cast<int>(_frag_streams.size()) + (name == "hvc1" ? 1 : 0));
    _frag_streams.push_back(st);
    if (!st->DemuxConfig0(trak, nullptr)) {
      LOGE << "!st->DemuxConfig0(trak, 0)";
      return false;
    }
  }
  _next_box_pos = 0;
  _moof_offset = 0;
  return true;
}

bool FMp4Parser::CloseDemuxer() {
  std::lock_guard<std::mutex> lock(_mutex);
  dropStreams();
  delete _mfraBox;
  _mfraBox = nullptr;
  delete _root;
  _root = nullptr;
  _io = nullptr;  // the element closes its stream
  return true;
}

// ---------------------------------------------------------------- the index

bool FMp4Parser::FindMfraBoxOffset(IO& io) {
  // Taken on 32 bits: the index of a file of 4 GiB or more is looked for by the low bits of its size.
  const uint32_t videoszie = static_cast<uint32_t>(io.Size());
  if (videoszie <= 4) {
    LOGE << "videoszie<=4";
    return false;
  }
  if (!io.Seek(videoszie - 4, kiv::Position::front)) {
    LOGE << "!io.Seek(offset,Position::front)";
    return false;
  }
  IOIntReader in(io);
  const uint32_t mfrasize = in.Read32be();
  if (videoszie <= mfrasize) {
    LOGE << "videoszie<=mfrasize " << videoszie << "<=" << mfrasize;
    return false;
  }
  _mfraOffset = static_cast<long long>(videoszie - mfrasize);
  if (!io.Seek(_mfraOffset + 4, kiv::Position::front)) {
    LOGE << "!io.Seek(_mfraOffset+4,Position::front)";
    return false;
  }
  // Anything but "mfra" there: the file simply has no index.
  if (in.Read32() != FCC("mfra") || in.Failed()) return false;
  LOGN << "found mfra";
  _mfra_size = mfrasize;
  return true;
}

bool FMp4Parser::MfraBoxParse(IO& io) {
  if (!FindMfraBoxOffset(io)) {
    LOGE << "!FindMfraBoxOffset(io)";
    return false;
  }
  delete _mfraBox;
  _mfraBox = IBox::New("mfra", 0);
  if (!_mfraBox) {
    LOGE << "!_mfraBox";
    return false;
  }
  _mfraBox->Size(_mfra_size);
  _mfraBox->Offset(_mfraOffset);
  io.Seek(_mfraOffset + 8, kiv::Position::front);
  AttrSet ap;
  IOBlockReader br(io, 32768);
  if (!_mfraBox->Parse(br, ap, true)) {
    LOGE << "!_mfraBox->Parse(br,ap,true)";
    return false;
  }
  if (!tfraShapesKnown()) return false;
  return SetTfraBoxToStream();
}

bool FMp4Parser::tfraShapesKnown() {
  // An entry is read as a 32-bit time, a 32-bit position and three one-byte numbers. Another version
  // or other length sizes mean entries of another shape, which would send the tracks to wrong places:
  // such an index is not used, and the file plays as one without.
  for (IBox* b = _mfraBox->Find("tfra"); b && b->FourCC() == FCC("tfra"); b = b->Next()) {
    auto* tfra = dynamic_cast<fmp4::ctfra*>(b);
    if (tfra && (tfra->Version() != 0 || tfra->LengthSizes() != 0)) {
      LOGE << "tfra of another shape: version " << static_cast<unsigned>(tfra->Version()) << ", length sizes "
           << tfra->LengthSizes() << "; the index is not used";
      return false;
    }
  }
  return true;
}

bool FMp4Parser::SetTfraBoxToStream() {
  if (!_mfraBox) return false;
  for (IBox* b = _mfraBox->Find("tfra"); b && b->FourCC() == FCC("tfra"); b = b->Next()) {
    auto* tfra = dynamic_cast<fmp4::ctfra*>(b);
    if (!tfra) continue;
    for (IMp4DemuxerStreamFragment* st : _frag_streams) {
      if (st->TrackID() != static_cast<int>(tfra->TrackId())) continue;
      st->SetTfra(tfra);
      st->updateMoofEntry();
      break;
    }
  }
  return true;
}

// ---------------------------------------------------------------- fragments found while playing

unsigned long long FMp4Parser::FindNextTopBox(IO& io, unsigned long long pos, long long len, const char* fcc) {
  if (pos > static_cast<unsigned long long>(INT64_MAX) || !io.Seek(static_cast<long long>(pos), kiv::Position::front))
    return 0;
  const long long size = io.Size();
  const long long pos1 = io.Position() + len;
  if (len < 0 || pos1 > size) {
    LOGE << "pos1>io.Size()";
    return 0;
  }
  uint32_t want = 0;
  const bool any = !fcc || !*fcc;
  if (!any) kiv::Convert32(want, fcc, 0, 4);
  IOIntReader in(io);
  while (io.Position() < pos1) {
    const long long at = io.Position();
    const long long rest = pos1 - at;
    const uint32_t boxSize = in.Read32be();
    if (boxSize == 0) {
      LOGE << ":size==0 at " << at;
      return 0;
    }
    if (boxSize > rest) {
      LOGE << boxSize << ">" << rest;
      return 0;
    }
    // A 64-bit size (1) or a size below its own header ends the walk.
    if (boxSize < 8) {
      LOGE << "box size " << boxSize << " at " << at;
      return 0;
    }
    const uint32_t code = in.Read32();
    if (code == 0 || in.Failed()) {
      LOGE << "no code at " << at;
      return 0;
    }
    if (!any && code == want) {
      if (code == FCC("mfra")) {
        _mfra_size = boxSize;
        _mfraOffset = at;
      }
      if (code == FCC("moof")) _moof_offset = at;
      _next_box_pos = static_cast<unsigned long long>(at) + boxSize;
      return boxSize;
    }
    if (!io.Seek(at + boxSize, kiv::Position::front)) return 0;
  }
  return 0;
}

unsigned long long FMp4Parser::FindNextMoofOffset(IO& io) {
  const long long size = io.Size();
  if (size < 0 || _next_box_pos > static_cast<unsigned long long>(size)) return 0;
  return FindNextTopBox(io, _next_box_pos, size - static_cast<long long>(_next_box_pos), "moof");
}

IBox* FMp4Parser::MoofBoxParse(IO& io) {
  const unsigned long long curBoxSize = FindNextMoofOffset(io);
  if (curBoxSize == 0) {
    LOGE << "!curBoxSize";
    return nullptr;
  }
  std::unique_ptr<IBox> moof(IBox::New("moof", 0));
  if (!moof) {
    LOGE << "!moof";
    return nullptr;
  }
  moof->Size(static_cast<unsigned>(curBoxSize));
  moof->Offset(_moof_offset);
  io.Seek(_moof_offset + 8, kiv::Position::front);
  AttrSet ap;
  IOBlockReader br(io, 32768);
  if (!moof->Parse(br, ap, true)) return nullptr;
  return moof.release();
}

bool FMp4Parser::UpdateStream(IO& io) {
  std::unique_ptr<IBox> moof(MoofBoxParse(io));
  if (!moof) {
    LOGE << "!moof";
    return false;
  }
  // Each track fragment's run goes to the track of its id; a moof may hold one for every track.
  bool any = false;
  for (IBox* traf = moof->Find("traf"); traf && traf->FourCC() == FCC("traf"); traf = traf->Next()) {
    auto* tfhd = dynamic_cast<fmp4::ctfhd*>(traf->Find("tfhd"));
    IBox* trun = traf->Find("trun");
    if (!tfhd || !trun) continue;
    any = true;
    for (IMp4DemuxerStreamFragment* st : _frag_streams) {
      if (st->TrackID() != static_cast<int>(tfhd->TrackId())) continue;
      st->NextTrunSet(trun, static_cast<unsigned long long>(moof->Offset()));
      st->TrunRead();
      st->_nextTurnBox = nullptr;  // the run goes with the moof
      break;
    }
  }
  return any;
}

// ---------------------------------------------------------------- play

Packet* FMp4Parser::ProcessNormal(IO& io) {
  for (;;) {
    IMp4DemuxerStreamFragment* chosen = nullptr;
    for (IMp4DemuxerStreamFragment* st : _frag_streams)
      if (!st->IsDemuxEnd() && (!chosen || st->CurrentPts() < chosen->CurrentPts())) chosen = st;
    if (!chosen) return nullptr;
    if (!_mfraBox)
      while (chosen->FrameListSizeGet() == 0)
        if (!UpdateStream(io)) break;
    _frag_pts = chosen->CurrentPts();
    Packet* packet = chosen->GetPacket(io);
    // The end of one track, or a fragment without samples, is not the end of the file: the others
    // still have theirs. Each turn either ends a track or uses up a listed fragment.
    if (packet) return packet;
  }
}

Packet* FMp4Parser::GeneratePacket(void*) {
  std::lock_guard<std::mutex> lock(_mutex);
  if (!_io) return nullptr;
  return ProcessNormal(*_io);
}

bool FMp4Parser::Seek(long long ms) {
  std::lock_guard<std::mutex> lock(_mutex);
  if (!_mfraBox) {
    LOGE << "no mfra box";
    return false;
  }
  LOGE << ms;
  for (IMp4DemuxerStreamFragment* st : _frag_streams) st->Seek(ms, true);
  return true;
}

// ---------------------------------------------------------------- thumbnail

unsigned FMp4Parser::GetThumbSize() {
  auto* thumb = _root ? dynamic_cast<cthumb*>(_root->Find("thum")) : nullptr;
  if (!thumb) {
    LOGE << "!thumb";
    return 0;
  }
  return thumb->ThumbSizeGet();
}

unsigned char* FMp4Parser::GetThumbData() {
  auto* thumb = _root ? dynamic_cast<cthumb*>(_root->Find("thum")) : nullptr;
  if (!thumb) {
    LOGE << "!thumb";
    return nullptr;
  }
  thumb->ThumbSizeGet();
  return const_cast<unsigned char*>(thumb->ThumbDataGet());
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
