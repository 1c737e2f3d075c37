#include "stream/plugin/mp4/demux/extern/IStblReader.h"

#include <climits>
#include <cstring>

#include "stream/base/Convert.h"
#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/io/IOBlockReader.h"
#include "stream/base/io/IOBufferReader.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/common/Stbl.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::AttrSet;
using kiv::base::Hex;
using kiv::base::IO;
using kiv::base::IOIntReader;

IStblReader::~IStblReader() { delete _reader; }

bool IStblReader::Init(AttrSet& ap) {
  if (_reader) {
    LOGE << "_reader" << "," << "initialized!";
    return false;
  }
  void* io0 = nullptr;
  if (!ap.Get("io", io0)) {
    LOGE << "!ap.Get(\"io\",io0)";
    return false;
  }
  if (!io0) {
    LOGE << "!io0";
    return false;
  }
  void* stbl = nullptr;
  if (!ap.Get("stbl", stbl)) {
    LOGE << "!ap.Get(\"stbl\",_stbl)";
    return false;
  }
  if (!stbl) {
    LOGE << "!_stbl";
    return false;
  }
  _stbl = static_cast<IStbl*>(stbl);
  IO& io = *static_cast<IO*>(io0);

  _blk_size = kDefaultBlock;
  if (ap.Has("stbl_extern_parser_blksize") && (!ap.Get("stbl_extern_parser_blksize", _blk_size) || _blk_size <= 0)) {
    LOGE << "stbl_extern_parser_blksize=" << ap.Get("stbl_extern_parser_blksize") << ": " << kDefaultBlock
         << " taken";
    _blk_size = kDefaultBlock;
  }

  _payload_pos = _stbl->PayloadPostion();
  _file_size = io.Size();
  _buffered = _stbl->PayloadSize() <= static_cast<unsigned long long>(_blk_size);
  IO* view = _buffered ? CreateIOBuffer(io, ap) : CreateIOBlock(io, ap);
  if (!view) {
    LOGE << "!io0";
    return false;
  }
  _reader = new IOIntReader(*view);
  _reader->SetFreeDelegateIO(true);

  _table_end = -1;
  if (!init(ap)) {
    LOGE << "!init(ap)";
    return false;
  }
  // A subclass that read entries ahead set the begin back by their bytes.
  _list_begin_pos += position();
  _list_end_pos = _list_begin_pos + static_cast<long long>(_list_item_size) * _entries;
  return true;
}

bool IStblReader::init(AttrSet&) {
  uint32_t head = 0, count = 0;
  if (!read32(head) || !read32(count)) return false;
  _stbl->Version(static_cast<unsigned char>(head >> 24));
  _stbl->Flags(head & 0xffffffu);
  tableAt(position(), count);
  return true;
}

void IStblReader::tableAt(long long firstEntry, uint32_t count) {
  const unsigned long long payload = _stbl->PayloadSize();
  const unsigned long long header = static_cast<unsigned long long>(firstEntry - _payload_pos);
  const unsigned long long room = payload > header ? (payload - header) / static_cast<unsigned>(_list_item_size) : 0;
  _entries = count;
  if (count > room) {
    LOGE << _stbl->Name() << ": _num " << count << " > " << room << ", the entries the box holds";
    _entries = static_cast<uint32_t>(room);
  }
  _stbl->Num(_entries);
  _table_end = firstEntry + static_cast<long long>(_entries) * _list_item_size;
}

IO* IStblReader::CreateIOBlock(IO& io, AttrSet&) {
  // A handle of its own: the table's reads move neither the parse nor the media reads.
  const char* url = io.URL();
  IO* iourl = url ? IO::New(url, "rb") : nullptr;
  if (!iourl) {
    LOGE << "!iourl";
    return nullptr;
  }
  if (!iourl->Seek(_payload_pos, kiv::Position::front)) {
    LOGE << "!iourl->Seek(pos)" << " pos=" << _payload_pos;
    delete iourl;
    return nullptr;
  }
  auto* block = new kiv::base::IOBlockReader(*iourl, _blk_size);
  block->SetFreeDelegateIO(true);
  return block;
}

IO* IStblReader::CreateIOBuffer(IO& io, AttrSet&) {
  const long long size = static_cast<long long>(_stbl->PayloadSize());  // at most a block
  // A box that claims more than the file holds is not copied: nothing is allocated for bytes that are
  // not there.
  if (io.Size() - _payload_pos < size) {
    LOGE << "io0->Read(ptr,size)!=size" << " size=" << size << " at " << _payload_pos << " of " << io.Size();
    return nullptr;
  }
  auto* buffer = new kiv::base::IOBufferReader(size);
  if (!io.Seek(_payload_pos, kiv::Position::front) || io.Read(buffer->Data(), size) != size) {
    LOGE << "io0->Read(ptr,size)!=size" << " size=" << size << " at " << _payload_pos;
    delete buffer;
    return nullptr;
  }
  // Positions in the copy are those of the file.
  buffer->Offset0(_payload_pos);
  return buffer;
}

long long IStblReader::position() { return _reader ? _reader->io().Position() : 0; }

bool IStblReader::seek(long long pos) { return _reader && _reader->io().Seek(pos, kiv::Position::front); }

bool IStblReader::readBytes(unsigned char* p, int n) {
  const long long at = position();
  if (_table_end >= 0 && at >= _table_end) {
    // Behind the table: no entry, no read.
    std::memset(p, 0, static_cast<size_t>(n));
    return seek(at + n);
  }
  if (_reader->io().Read(p, n) == n) return true;
  std::memset(p, 0, static_cast<size_t>(n));
  LOGE << _stbl->Name() << ": " << n << " bytes at " << Hex(static_cast<uint64_t>(at), 8)
       << " not read, the file ends at " << Hex(static_cast<uint64_t>(_reader->io().Size()), 8);
  seek(at + n);
  return false;
}

bool IStblReader::read32(uint32_t& v) {
  unsigned char b[4];
  const bool ok = readBytes(b, 4);
  v = Read32BE(b);
  return ok;
}

bool IStblReader::read64(uint64_t& v) {
  unsigned char b[8];
  const bool ok = readBytes(b, 8);
  v = Read64BE(b);
  return ok;
}

bool IStblReader::read(SttsEntry& e) {
  unsigned char b[SttsEntry::kBytes];
  const bool ok = readBytes(b, sizeof b);
  e.run = Read32BE(b);
  e.delta = Read32BE(b + 4);
  return ok;
}

bool IStblReader::read(StscEntry& e) {
  unsigned char b[StscEntry::kBytes];
  const bool ok = readBytes(b, sizeof b);
  e.first_chunk = Read32BE(b);
  e.samples_per_chunk = Read32BE(b + 4);
  e.desc_index = Read32BE(b + 8);
  return ok;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterIStblReader() {
  using kiv::plugin::mov::IStblReader;
  using P = kiv::base::TProperty<IStblReader>;
  kiv::plugin::mov::Reflect<IStblReader>("mov-stbl-reader-extern", {P::Setter("init", &IStblReader::Init)}, "quor",
                                         false);
}
