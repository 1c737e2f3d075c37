#include "stream/plugin/mp4/demux/StreamDemuxer.h"

#include <memory>
#include <string>

#include "stream/base/AttrSet.h"
#include "stream/base/dbg/Log.h"
#include "stream/core/Packet.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/IStream.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::AttrSet;
using kiv::base::IO;
using kiv::base::Object;
using kiv::stream::Packet;

namespace {
constexpr int kCheckedSize = 1 << 20;

struct PacketRelease {
  void operator()(Packet* p) const { p->Release(); }
};
}  // namespace

StreamDemuxer::StreamDemuxer(IStream* stream) : _stream(stream) {
  IBox* box = stream && stream->Track() ? stream->Track()->Find("stbl") : nullptr;
  if (!box) {
    LOGE << "!box " << (stream ? stream->Name() : "");
    return;
  }
  AttrSet ap;
  if (!box->toAttrSet(ap)) {
    LOGE << "!box->To(ap)";
    return;
  }
  const std::string type = std::string("mov-stbl-parser-") + ap.GetOrDef("stbl_parser_keywords", "");
  AttrSet na;
  Object::AttrSetInit(na, nullptr, type.c_str());
  IStblParser* parser = Object::New<IStblParser>(na);
  if (!parser) {
    LOGE << "!parse " << type;
    return;
  }
  parser->Init(box);
  init(parser);
  _total_pts = scale().FromMs(GetDuration());
}

const kiv::base::TimeScale& StreamDemuxer::scale() const { return _stream->_scale; }

long long StreamDemuxer::GetDuration() const { return _stream ? _stream->Duration() : 0; }

long long StreamDemuxer::CurrentPts() const { return scale().ToMs(_frm.Pts); }

long long StreamDemuxer::CurrentDuration() const { return scale().ToMs(_frm.Duration); }

FrameInfo StreamDemuxer::GetFrameInfo(int idx) {
  FrameInfo f = StreamParser::GetFrameInfo(idx);
  if (!(f.Flags & FrameInfo::kInvalid)) {
    f.Pts = scale().ToMs(f.Pts);
    f.Duration = scale().ToMs(f.Duration);
  }
  return f;
}

int StreamDemuxer::FindIndex(long long ms, bool align) { return StreamParser::FindIndex(scale().FromMs(ms), align); }

long long StreamDemuxer::GetBitRate() {
  const long long d = GetDuration();
  return d > 0 ? kiv::base::MulDiv(GetTotalSize(), 8000, d) : 0;
}

kiv::base::Fraction StreamDemuxer::GetFrameRate() {
  return kiv::base::Fraction(static_cast<long long>(GetTotalCount()) * 1000, GetDuration());
}

long long StreamDemuxer::LimitPts(long long ms) const {
  if (ms < 0) return 0;
  const long long d = GetDuration();
  return ms > d ? d : ms;
}

bool StreamDemuxer::Seek(long long ms, bool alignToKeyFrame) {
  if (!CheckPts(ms)) return false;
  const bool ok = StreamParser::Seek(scale().FromMs(ms), alignToKeyFrame);
  if (!ok)
    LOGE << "!StreamParser::Seek(_stream->_scale.FromMs(pts),alignToKeyFrame)" << " ms=" << ms
         << " duration=" << GetDuration();
  return ok;
}

Packet* StreamDemuxer::GetPacket(IO& io, int last) {
  if (CurrentIsInvalid() || !_stblparser) {
    LOGE << "!frm " << _frm.Index << "/" << GetTotalCount();
    return nullptr;
  }
  // A big frame that cannot lie in the file is not allocated: its size may be forged. Small ones are
  // left to the short read, which costs no question to the file system a packet.
  const long long fileSize = _frm.Size > kCheckedSize ? io.Size() : -1;
  // Compared without a sum: a 64-bit chunk offset can put Pos next to the largest position.
  if (_frm.Size < 0 || _frm.Pos < 0 || (fileSize >= 0 && (_frm.Size > fileSize || _frm.Pos > fileSize - _frm.Size))) {
    LOGE << "(size<=0) || (size != frm.Size())" << " frame " << _frm.Index << " at " << _frm.Pos << " of "
         << _frm.Size << " bytes lies beyond the file's " << fileSize << " bytes";
    return kiv::stream::PacketError();
  }
  std::unique_ptr<Packet, PacketRelease> packet(kiv::stream::PacketAlloc(_frm.Size + 128, 64, 64));
  if (!packet) {
    LOGE << "!PacketAlloc(" << _frm.Size + 128 << ")";
    return kiv::stream::PacketError();
  }
  packet->index = _frm.Index;
  packet->pts = scale().ToMs(_frm.Pts) * 1000000;
  packet->duration = scale().ToMs(_frm.Duration) * 1000000;
  packet->SetKey((_frm.Flags & FrameInfo::kKey) != 0);
  packet->media = _stream->Media();

  if (!io.Seek(_frm.Pos, kiv::Position::front)) {
    LOGE << "!io.Seek(frm.Postion(),Position::front)" << " pos=" << _frm.Pos << " size=" << io.Size()
         << " at=" << io.Position();
    return kiv::stream::PacketError();
  }
  const long long size = io.Read(packet->Data(), _frm.Size);
  if (size <= 0 || size != _frm.Size) {
    LOGE << "(size<=0) || (size != frm.Size())" << " data=" << (packet->Data() ? "set" : "null") << " size=" << size;
    return kiv::stream::PacketError();
  }
  packet->Size(static_cast<int>(size));
  if (last >= 0 && last == _frm.Index) packet->flags |= _eos_flags;
  if (_ext_flags) {
    packet->flags |= _ext_flags;
    _ext_flags = 0;
  }
  markUsed();
  return _stream->demuxUpdatePacket(io, packet.release());
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
