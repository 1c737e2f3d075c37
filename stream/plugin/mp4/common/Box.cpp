#include "stream/plugin/mp4/common/Box.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/common/BoxReader.h"
#include "stream/plugin/mp4/common/BoxText.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::Hex;
using kiv::base::IOIntReader;
using kiv::base::IOIntWriter;

namespace {

void WriteWide(IOIntWriter& w, bool v1, unsigned long long v) {
  if (v1)
    w.Write64be(v);
  else
    w.Write32be(static_cast<uint32_t>(v));
}

void WriteZeros(IOIntWriter& w, int n) {
  for (int i = 0; i < n; ++i) w.Write8(0);
}

// Rewrites one number of a written box in place; rel counts from the end of the box's header.
void Patch(IO& io, const IBox& box, unsigned rel, unsigned long long v, bool wide) {
  const long long at = box.Offset() + box.PayloadOffset() + rel;
  IOIntWriter w(io);
  if (wide)
    w.Write64be(v, at, kiv::Position::front);
  else
    w.Write32be(static_cast<uint32_t>(v), at, kiv::Position::front);
}

std::string Matrix(const unsigned (&m)[9]) {
  std::ostringstream os;
  for (int i = 0; i < 9; ++i) os << (i ? "," : "") << Hex(m[i]);
  return os.str();
}

std::string Text(const unsigned char* p, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += (p[i] >= 0x20 && p[i] < 0x7f) ? static_cast<char>(p[i]) : '.';
  return s;
}

}  // namespace

// ============================================================ ftyp

cftyp::cftyp() : IBox("ftyp", 0), _major_brand(FCC("qt  ")), _brands{FCC("qt  "), 0, 0, 0}, _compatible_brands(_brands) {}

unsigned long long cftyp::statisticsSize() const { return 16ull + 4ull * _compatible_brands_cnt; }

void cftyp::fill(IO& io) {
  IBox::fill(io);
  IOIntWriter w(io);
  w.Write32(_major_brand);
  w.Write32be(_minor_version);
  if (!_compatible_brands && _compatible_brands_cnt) LOGE << "!_compatible_brands";
  for (unsigned i = 0; i < _compatible_brands_cnt; ++i) w.Write32(_compatible_brands ? _compatible_brands[i] : 0);
}

bool cftyp::parse(IO& io) {
  BoxReader r(io, *this);
  _major_brand = r.Raw32();
  _minor_version = r.U32();
  const unsigned long long payload = PayloadSize();
  unsigned long long cnt = payload >= 8 ? (payload - 8) / 4 : 0;
  // Brands beyond the inner array stay unread; the box's end is found from its size.
  if (cnt > 4) cnt = 4;
  _compatible_brands_cnt = static_cast<unsigned>(cnt);
  LOGI << "_compatible_brands_cnt: " << _compatible_brands_cnt;
  _compatible_brands = _brands;
  for (unsigned i = 0; i < 4; ++i) _brands[i] = i < _compatible_brands_cnt ? r.Raw32() : 0;
  return r.Finish();
}

void cftyp::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("major_brand", FccText(_major_brand));
  out.SetOrAdd("minor_version", _minor_version);
  std::string brands;
  for (unsigned i = 0; _compatible_brands && i < _compatible_brands_cnt && i < 8; ++i)
    brands += (i ? "," : "") + FccText(_compatible_brands[i]);
  if (_compatible_brands_cnt > 8) brands += ",...";
  out.SetOrAdd("compatible_brands", brands);
}

// ============================================================ moov, mdat

cmoov::cmoov() : IBox("moov", 0) {}

void cmoov::fill(IO& io) {
  // The muxer finds the box in the file again by this place.
  Offset(io.Position());
  IBox::fill(io);
}

cmdat::cmdat(unsigned size) : IBox("mdat", size) {}

void cmdat::fill(IO& io) {
  IOIntWriter w(io);
  if (!_written) {
    _written = true;
    _pos = static_cast<unsigned long long>(io.Position());
    if (Debug()) LOGL << "mdat header at " << _pos;
    IBox::fill(io);
    if (_size == 1) _pos += 8;
    LOGI << "mdat size field at " << _pos << ", body at " << io.Position();
    return;
  }
  // The samples are in; only the size changes, and the stream stays where it is.
  const long long here = io.Position();
  if (Debug()) LOGL << "mdat size " << RealSize() << " to " << _pos << " from " << here;
  if (_size == 1)
    w.Write64be(_extended_size, static_cast<long long>(_pos), kiv::Position::front);
  else
    w.Write32be(static_cast<uint32_t>(_size), static_cast<long long>(_pos), kiv::Position::front);
  LOGI << "mdat size " << RealSize() << " at " << _pos << ", back at " << io.Position();
}

bool cmdat::parse(IO& io) {
  _pos = static_cast<unsigned long long>(io.Position());
  // The media is read by the tracks, never here.
  if (!BoxReader(io, *this).SkipRest()) {
    LOGE << "!io.Seek(_pos+size,Position::front)";
    return false;
  }
  return true;
}

void cmdat::reset() {
  _pos = 0;
  _written = false;
}

void cmdat::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("pos", _pos);
}

// ============================================================ free

namespace {
constexpr unsigned kZeroBlock = 32768;
const unsigned char g_zeros[kZeroBlock] = {};
}  // namespace

cfree::cfree() : IBox("free", 0) {}

unsigned long long cfree::statisticsSize() const { return _write_size > 8 ? _write_size : 8; }

void cfree::fill(IO& io) {
  IBox::fill(io);
  if (_write_size < 9) return;
  unsigned long long left = _write_size - 8ull;
  while (left) {
    const long long n = static_cast<long long>(std::min<unsigned long long>(left, kZeroBlock));
    const long long k = io.Write(g_zeros, n);
    if (k <= 0) break;
    left -= static_cast<unsigned long long>(k);
  }
}

bool cfree::parse(IO& io) { return BoxReader(io, *this).SkipRest(); }

void cfree::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("write_size", _write_size);
}

cfree_concate::cfree_concate(unsigned cluster, std::function<bool(void*)> cond)
    : _cluster(cluster ? cluster : 0x20000), _cond(std::move(cond)) {}

void cfree_concate::fill(IO& io) {
  const long long pos = io.Position();
  const unsigned long long r = pos > 0 ? static_cast<unsigned long long>(pos) % _cluster : 0;
  // Only a table that will be joined from its own file needs the boundary.
  if (_cond && !_cond(nullptr)) return;
  if (r == 0) return;
  unsigned long long pad = _cluster - r;
  if (pad < 8) pad += _cluster;  // a box needs room for its header
  UpdateWriteSize(static_cast<unsigned>(pad));
  IBox::fill(io);
  if (_write_size > 8) {
    std::vector<unsigned char> block(_write_size - 8u, 0);
    io.Write(block.data(), static_cast<long long>(block.size()));
  }
}

long long cfree_concate::Fill(IO& io, bool) {
  const long long pos = io.Position();
  Offset(pos);
  fill(io);
  const long long written = io.Position() - pos;
  // Nothing written is no box at all: there is no header to patch.
  if (written == 0) return 0;
  IOIntWriter w(io);
  if (_write_size == 1)
    w.Write64be(static_cast<uint64_t>(written), pos + 8, kiv::Position::front);
  else
    w.Write32be(static_cast<uint32_t>(written), pos, kiv::Position::front);
  _write_size = static_cast<unsigned>(written);
  if (_size_limit && _size_limit < _write_size) _write_size = _size_limit;
  _size = _write_size;
  return written;
}

void cfree_concate::fields(AttrSet& out) const {
  cfree::fields(out);
  out.SetOrAdd("cluster", _cluster);
}

// ============================================================ udta, QUOR

cudta::cudta() : IBox("udta", 0) {}

unsigned long long cudta::statisticsSize() const { return 8ull + (_data ? _size : 0u); }

void cudta::fill(IO& io) {
  IBox::fill(io);
  if (_data && _size) io.Write(_data, _size);
}

bool cudta::parse(IO& io) { return BoxReader(io, *this).SkipRest(); }

void cudta::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("payload", _data ? _size : 0u);
}

cQUOR::cQUOR() : IBox("QUOR", 0) {}

void cQUOR::fill(IO& io) {
  IBox::fill(io);
  IOIntWriter(io).Write32(_quor);
}

bool cQUOR::parse(IO& io) {
  BoxReader r(io, *this);
  _quor = r.Raw32();
  return r.Finish();
}

void cQUOR::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("value", HexText(_quor));
}

// ============================================================ uuid (Spherical Video V1)

namespace {

const unsigned char kSphericalId[16] = {0xff, 0xcc, 0x82, 0x63, 0xf8, 0x55, 0x4a, 0x93,
                                        0x88, 0x14, 0x58, 0x7a, 0x02, 0x52, 0x1f, 0xdd};
const char kXmlHeader[] = "<?xml version=\"1.0\"?>";
const char kRdfOpen[] =
    "<rdf:SphericalVideo\n"
    "xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\"\n"
    "xmlns:GSpherical=\"http://ns.google.com/videos/1.0/spherical/\">";
const char kSpherical[] = "<GSpherical:Spherical>true</GSpherical:Spherical>";
const char kStitched[] = "<GSpherical:Stitched>true</GSpherical:Stitched>";
const char kStitchingSoftware[] =
    "<GSpherical:StitchingSoftware>Quorelvan 4100 software</GSpherical:StitchingSoftware>";
const char kProjectionType[] = "<GSpherical:ProjectionType>equirectangular</GSpherical:ProjectionType>";
const char kRdfClose[] = "</rdf:SphericalVideo>";

template <size_t N>
cuuid::Atom TextAtom(const char (&text)[N]) {
  // The pieces follow one another without terminators.
  return cuuid::UuidSphericalAtomInit(reinterpret_cast<const unsigned char*>(text), N - 1);
}

}  // namespace

cuuid::Atom cuuid::* const cuuid::kOrder[8] = {&cuuid::_uuid,     &cuuid::_xml_header,         &cuuid::_rdf_open,
                                               &cuuid::_spherical, &cuuid::_stitched,           &cuuid::_stitching_software,
                                               &cuuid::_projection_type, &cuuid::_rdf_close};

cuuid::cuuid() : IBox("uuid", 0) { UuidSphericalInit(); }

cuuid::cuuid(const char* fcc) : IBox(fcc, 0) { UuidSphericalInit(); }

cuuid::~cuuid() { UuidAtomFree(); }

cuuid::Atom cuuid::UuidSphericalAtomInit(const unsigned char* data, unsigned int len) {
  Atom a;
  if (!data || !len) return a;
  a._data = new unsigned char[len];
  std::memcpy(a._data, data, len);
  a._len = len;
  return a;
}

void cuuid::UuidSphericalInit() {
  UuidAtomFree();
  _uuid = UuidSphericalAtomInit(kSphericalId, sizeof(kSphericalId));
  _xml_header = TextAtom(kXmlHeader);
  _rdf_open = TextAtom(kRdfOpen);
  _spherical = TextAtom(kSpherical);
  _stitched = TextAtom(kStitched);
  _stitching_software = TextAtom(kStitchingSoftware);
  _projection_type = TextAtom(kProjectionType);
  _rdf_close = TextAtom(kRdfClose);
}

void cuuid::UuidAtomFree() {
  for (Atom cuuid::*m : kOrder) {
    delete[] (this->*m)._data;
    this->*m = Atom();
  }
}

unsigned long long cuuid::statisticsSize() const {
  unsigned long long n = 8;
  for (Atom cuuid::*m : kOrder) n += (this->*m)._len;
  return n;
}

void cuuid::fill(IO& io) {
  IBox::fill(io);
  for (Atom cuuid::*m : kOrder) {
    const Atom& a = this->*m;
    if (a._data && a._len) io.Write(a._data, a._len);
  }
}

bool cuuid::parse(IO& io) { return BoxReader(io, *this).SkipRest(); }

void cuuid::fields(AttrSet& out) const {
  IBox::fields(out);
  std::ostringstream id;
  for (unsigned i = 0; _uuid._data && i < _uuid._len; ++i)
    id << "0123456789abcdef"[_uuid._data[i] >> 4] << "0123456789abcdef"[_uuid._data[i] & 15];
  out.SetOrAdd("uuid", id.str());
  out.SetOrAdd("xml", statisticsSize() - 8 - _uuid._len);
}

// ============================================================ mvhd

cmvhd::cmvhd(unsigned char version) : IMoov("mvhd", version) {}

void cmvhd::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  const bool v1 = _version == 1;
  WriteWide(w, v1, _createtime);
  WriteWide(w, v1, _modifytime);
  w.Write32be(_timescale);
  WriteWide(w, v1, _duration);
  w.Write32be(_rate);
  w.Write16be(_volume);
  WriteZeros(w, 10);
  for (unsigned m : _matrix) w.Write32be(m);
  w.Write32be(_preview_time);
  w.Write32be(_preview_duration);
  w.Write32be(_poster_time);
  w.Write32be(_selection_time);
  w.Write32be(_selection_duration);
  w.Write32be(_current_time);
  w.Write32be(_next_track_id);
}

bool cmvhd::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  const bool v1 = _version == 1;
  _createtime = r.Wide(v1);
  _modifytime = r.Wide(v1);
  _timescale = r.U32();
  _duration = r.Wide(v1);
  _rate = r.U32();
  _volume = r.U16();
  r.Skip(10);
  for (unsigned& m : _matrix) m = r.U32();
  _preview_time = r.U32();
  _preview_duration = r.U32();
  _poster_time = r.U32();
  _selection_time = r.U32();
  _selection_duration = r.U32();
  _current_time = r.U32();
  _next_track_id = r.U32();
  return r.Finish();
}

bool cmvhd::fromAttrSet(const AttrSet& ap) {
  if (!ap.Get("create_time", _createtime)) {
    LOGE << "!ap.Get(\"create_time\",_createtime)";
    return false;
  }
  if (!ap.Get("duration", _duration)) {
    LOGE << "!ap.Get(\"duration\",_duration)";
    return false;
  }
  if (!ap.Get("track_id", _next_track_id)) {
    LOGE << "!ap.Get(\"track_id\",_next_track_id)";
    return false;
  }
  return IMoov::fromAttrSet(ap);
}

void cmvhd::Duration(unsigned long long duration, IO* io) {
  _duration = duration;
  const bool v1 = _version == 1;
  if (io) Patch(*io, *this, v1 ? 24 : 16, duration, v1);
}

void cmvhd::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("createtime", _createtime);
  out.SetOrAdd("modifytime", _modifytime);
  out.SetOrAdd("timescale", _timescale);
  out.SetOrAdd("duration", _duration);
  out.SetOrAdd("rate", HexText(_rate));
  out.SetOrAdd("volume", static_cast<unsigned>(_volume));
  out.SetOrAdd("matrix", Matrix(_matrix));
  out.SetOrAdd("next_track_id", _next_track_id);
}

// ============================================================ trak, mdia, mvex

ctrak::ctrak() : IBox("trak", 0) {}
cmdia::cmdia() : IBox("mdia", 0) {}
cmvex::cmvex() : IBox("mvex", 0) {}

// ============================================================ tkhd

ctkhd::ctkhd(unsigned char version) : IMoov("tkhd", version) {}

void ctkhd::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  const bool v1 = _version == 1;
  WriteWide(w, v1, _createtime);
  WriteWide(w, v1, _modifytime);
  w.Write32be(_track_id);
  w.Write32be(0);
  WriteWide(w, v1, _duration);
  WriteZeros(w, 8);
  w.Write16be(_layer);
  w.Write16be(_alternate_group);
  w.Write16be(_volume);
  w.Write16be(0);
  for (unsigned m : _matrix) w.Write32be(m);
  w.Write16be(_width);
  w.Write16be(0);
  w.Write16be(_height);
  w.Write16be(0);
}

bool ctkhd::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  const bool v1 = _version == 1;
  _createtime = r.Wide(v1);
  _modifytime = r.Wide(v1);
  _track_id = r.U32();
  r.Skip(4);
  _duration = r.Wide(v1);
  r.Skip(8);
  _layer = r.U16();
  _alternate_group = r.U16();
  _volume = r.U16();
  r.Skip(2);
  for (unsigned& m : _matrix) m = r.U32();
  _width = r.U16();
  r.Skip(2);
  _height = r.U16();
  r.Skip(2);
  return r.Finish();
}

bool ctkhd::fromAttrSet(const AttrSet& ap) {
  // Each key is optional here.
  ap.Get("create_time", _createtime);
  ap.Get("modify_time", _modifytime);
  ap.Get("duration", _duration);
  ap.Get("track_id", _track_id);
  return IMoov::fromAttrSet(ap);
}

void ctkhd::Duration(unsigned long long duration, IO* io) {
  _duration = duration;
  const bool v1 = _version == 1;
  if (io) Patch(*io, *this, v1 ? 28 : 20, duration, v1);
}

void ctkhd::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("createtime", _createtime);
  out.SetOrAdd("modifytime", _modifytime);
  out.SetOrAdd("track_id", _track_id);
  out.SetOrAdd("duration", _duration);
  out.SetOrAdd("layer", static_cast<unsigned>(_layer));
  out.SetOrAdd("alternate_group", static_cast<unsigned>(_alternate_group));
  out.SetOrAdd("volume", static_cast<unsigned>(_volume));
  out.SetOrAdd("matrix", Matrix(_matrix));
  out.SetOrAdd("width", static_cast<unsigned>(_width));
  out.SetOrAdd("height", static_cast<unsigned>(_height));
}

// ============================================================ mdhd

cmdhd::cmdhd(unsigned char version) : IMoov("mdhd", version) {}

void cmdhd::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  const bool v1 = _version == 1;
  WriteWide(w, v1, _createtime);
  WriteWide(w, v1, _modifytime);
  w.Write32be(_timescale);
  WriteWide(w, v1, _duration);
  w.Write16be(_language);
  w.Write16be(_quality);
}

bool cmdhd::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  const bool v1 = _version == 1;
  _createtime = r.Wide(v1);
  _modifytime = r.Wide(v1);
  _timescale = r.U32();
  _duration = r.Wide(v1);
  _language = r.U16();
  _quality = r.U16();
  return r.Finish();
}

bool cmdhd::fromAttrSet(const AttrSet& ap) {
  ap.Get("createtime", _createtime);
  ap.Get("modifytime", _modifytime);
  ap.Get("duration", _duration);
  return IMoov::fromAttrSet(ap);
}

void cmdhd::Duration(unsigned long long duration, IO* io) {
  LOGI << "duration=" << duration;
  _duration = duration;
  const bool v1 = _version == 1;
  if (io) Patch(*io, *this, v1 ? 24 : 16, duration, v1);
}

void cmdhd::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("createtime", _createtime);
  out.SetOrAdd("modifytime", _modifytime);
  out.SetOrAdd("timescale", _timescale);
  out.SetOrAdd("duration", _duration);
  out.SetOrAdd("language", static_cast<unsigned>(_language));
  out.SetOrAdd("quality", static_cast<unsigned>(_quality));
}

// ============================================================ edts, elst

cedts::cedts(unsigned size) : IBox("edts", size) {}

void cedts::fill(IO& io) {
  // The header goes out once; the size is patched behind it by Fill.
  if (_written) return;
  _written = true;
  _pos = static_cast<unsigned long long>(io.Position());
  IBox::fill(io);
  if (_size == 1) _pos += 8;
}

void cedts::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("pos", _pos);
}

celst::celst(unsigned char version) : IMoov("elst", version) {}

void celst::Add(const Item& item) {
  _items.push_back(item);
  ++_num;
}

void celst::reset() {
  _items.clear();
  _num = 0;
}

unsigned long long celst::statisticsSize() const {
  return 16ull + (_version == 1 ? 20ull : 12ull) * _items.size();
}

void celst::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  const bool v1 = _version == 1;
  w.Write32be(_num);
  for (const Item& it : _items) {
    WriteWide(w, v1, it.segment_duration);
    WriteWide(w, v1, static_cast<unsigned long long>(it.media_time));
    w.Write32be(it.rate);
  }
}

bool celst::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  const bool v1 = _version == 1;
  unsigned num = r.U32();
  const long long item = v1 ? 20 : 12;
  const long long fit = r.Left() / item;
  if (num > fit) {
    LOGE << "elst:_num " << num << ">" << fit;
    num = static_cast<unsigned>(fit);
  }
  _items.clear();
  _items.reserve(num);
  for (unsigned i = 0; i < num; ++i) {
    Item it;
    it.segment_duration = r.Wide(v1);
    // A version 0 media time of -1 (an empty edit) keeps its sign.
    it.media_time = v1 ? static_cast<long long>(r.U64()) : static_cast<long long>(static_cast<int32_t>(r.U32()));
    it.rate = r.U32();
    _items.push_back(it);
  }
  _num = num;
  return r.Finish();
}

void celst::Duration(unsigned long long duration, IO* io) {
  LOGI << "duration=" << duration;
  reset();
  Add(Item{duration, 0, 0x10000});
  const bool v1 = _version == 1;
  // Only the first segment's duration changes in the file; the count stays as written.
  if (io) Patch(*io, *this, 8, duration, v1);
}

void celst::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("entries", _num);
  std::ostringstream os;
  const size_t shown = std::min<size_t>(_items.size(), 4);
  for (size_t i = 0; i < shown; ++i)
    os << (i ? "," : "") << _items[i].segment_duration << "/" << _items[i].media_time << "/" << Hex(_items[i].rate);
  if (_items.size() > shown) os << ",...";
  out.SetOrAdd("items", os.str());
}

// ============================================================ tapt and its children

ctapt::ctapt(unsigned size) : IBox("tapt", size) {}

void ctapt::fill(IO& io) {
  if (_written) return;
  _written = true;
  _pos = static_cast<unsigned long long>(io.Position());
  IBox::fill(io);
  if (_size == 1) _pos += 8;
}

bool ctapt::parse(IO& io) {
  // The aperture boxes are not read back: the box is passed over whole.
  _pos = static_cast<unsigned long long>(io.Position());
  return BoxReader(io, *this).SkipRest();
}

void ctapt::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("pos", _pos);
}

void caperture::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  w.Write16be(_width);
  w.Write16be(0);
  w.Write16be(_height);
  w.Write16be(0);
}

bool caperture::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  _width = r.U16();
  r.Skip(2);
  _height = r.U16();
  r.Skip(2);
  return r.Finish();
}

void caperture::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("width", static_cast<unsigned>(_width));
  out.SetOrAdd("height", static_cast<unsigned>(_height));
}

// ============================================================ mehd, trex

cmehd::cmehd(unsigned char version) : IMoov("mehd", version) {}

void cmehd::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  WriteWide(w, _version == 1, _duration);
}

bool cmehd::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  _duration = r.Wide(_version == 1);
  return r.Finish();
}

void cmehd::Duration(unsigned long long duration, IO* io) {
  _duration = duration;
  if (io) Patch(*io, *this, 4, duration, _version == 1);
}

void cmehd::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("duration", _duration);
}

ctrex::ctrex(unsigned char version) : IMoov("trex", version) {}

void ctrex::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  w.Write32be(_track_id);
  w.Write32be(_default_sample_description_index);
  w.Write32be(_default_sample_duration);
  w.Write32be(_default_sample_size);
  w.Write32be(_default_sample_flags);
}

bool ctrex::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  _track_id = r.U32();
  _default_sample_description_index = r.U32();
  _default_sample_duration = r.U32();
  _default_sample_size = r.U32();
  _default_sample_flags = r.U32();
  return r.Finish();
}

void ctrex::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("track_id", _track_id);
  out.SetOrAdd("default_sample_description_index", _default_sample_description_index);
  out.SetOrAdd("default_sample_duration", _default_sample_duration);
  out.SetOrAdd("default_sample_size", _default_sample_size);
  out.SetOrAdd("default_sample_flags", HexText(_default_sample_flags));
}

// ============================================================ minf, dinf, gmhd

cminf::cminf() : IBox("minf", 0) {}
cdinf::cdinf() : IBox("dinf", 0) {}
cgmhd::cgmhd() : IBox("gmhd", 0) {}

// ============================================================ hdlr

chdlr::chdlr() : IMoov("hdlr", 0) {}

void chdlr::ComponentName(const void* name, unsigned len) {
  std::memset(_name, 0, sizeof(_name));
  const unsigned n = name ? std::min<unsigned>(len, sizeof(_name)) : 0;
  if (n) std::memcpy(_name, name, n);
  _name_len = static_cast<unsigned char>(n);
}

void chdlr::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  w.Write32(_component_type);
  w.Write32(_component_subtype);
  w.Write32(_component_manufacturer);
  w.Write32be(_component_flags);
  w.Write32be(_component_flags_mask);
  const unsigned char n = std::min<unsigned char>(_name_len, sizeof(_name));
  w.Write8(n);
  if (n) io.Write(_name, n);
}

bool chdlr::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  _component_type = r.Raw32();
  _component_subtype = r.Raw32();
  _component_manufacturer = r.Raw32();
  _component_flags = r.U32();
  _component_flags_mask = r.U32();
  const unsigned n = r.U8();
  const long long room = r.Left();  // the box's bytes behind the length
  std::memset(_name, 0, sizeof(_name));
  long long got = 0;
  if (n <= room) {
    got = r.Bytes(_name, std::min<long long>(n, sizeof(_name)));
    _name_len = static_cast<unsigned char>(got);
  } else {
    // No count: the byte was the name's first character.
    _name[0] = static_cast<unsigned char>(n);
    got = r.Bytes(_name + 1, std::min<long long>(room, sizeof(_name) - 1));
    _name_len = static_cast<unsigned char>(1 + got);
  }
  r.Skip(room - got);
  return r.Finish();
}

void chdlr::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("component_type", FccText(_component_type));
  out.SetOrAdd("component_subtype", FccText(_component_subtype));
  out.SetOrAdd("component_manufacturer", FccText(_component_manufacturer));
  out.SetOrAdd("component_flags", HexText(_component_flags));
  out.SetOrAdd("component_flags_mask", HexText(_component_flags_mask));
  out.SetOrAdd("name", Text(_name, std::min<size_t>(_name_len, sizeof(_name))));
}

// ============================================================ vmhd, gmin, smhd

cvmhd::cvmhd() : IMoov("vmhd", 0) {}

void cvmhd::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  w.Write16be(_graphics_mode);
  w.Write16be(_opcolor_red);
  w.Write16be(_opcolor_green);
  w.Write16be(_opcolor_blue);
}

bool cvmhd::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  _graphics_mode = r.U16();
  _opcolor_red = r.U16();
  _opcolor_green = r.U16();
  _opcolor_blue = r.U16();
  return r.Finish();
}

void cvmhd::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("graphics_mode", static_cast<unsigned>(_graphics_mode));
  std::ostringstream os;
  os << _opcolor_red << "," << _opcolor_green << "," << _opcolor_blue;
  out.SetOrAdd("opcolor", os.str());
}

cgmin::cgmin() {
  _fourcc = FCC("gmin");
  Name(FCCString());
  LOGI << "gmin";
}

void cgmin::fill(IO& io) {
  cvmhd::fill(io);
  IOIntWriter w(io);
  w.Write16be(_balance);
  w.Write16be(0);
}

bool cgmin::parse(IO& io) {
  _balance = 0;
  // A short vmhd part has been reported already, and nothing follows it.
  if (!cvmhd::parse(io)) return false;
  BoxReader r(io, *this);
  _balance = r.U16();
  r.Skip(2);
  return r.Finish();
}

void cgmin::fields(AttrSet& out) const {
  cvmhd::fields(out);
  out.SetOrAdd("balance", static_cast<unsigned>(_balance));
}

csmhd::csmhd() : IMoov("smhd", 0) {}

void csmhd::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter w(io);
  w.Write16be(_balance);
  w.Write16be(0);
}

bool csmhd::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  _balance = r.U16();
  r.Skip(2);
  return r.Finish();
}

void csmhd::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("balance", static_cast<unsigned>(_balance));
}

// ============================================================ dref, url, alis

cdref::cdref() : IMoovList("dref") {}

bool cdref::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  // The entries are counted as they are added; the file's count is only read past.
  const unsigned count = r.U32();
  if (Debug()) LOGL << "dref count in file " << count;
  return r.Finish();
}

curl_::curl_() : IMoov("url ", 0) {}

bool curl_::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  return r.Finish();
}

calis::calis() : IMoov("alis", 0) {}
calis::calis(unsigned int fourcc) : IMoov(fourcc, 0) {}

bool calis::parse(IO& io) {
  BoxReader r(io, *this);
  if (r.Has(4)) IMoov::parse(io);
  return r.Finish();
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
