#include "stream/plugin/mp4/common/IBox.h"

#include <climits>
#include <string>
#include <vector>

#include "stream/base/Convert.h"
#include "stream/base/Helpers.h"
#include "stream/base/dbg/Log.h"
#include "stream/plugin/mp4/common/BoxFactory.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::Hex;
using kiv::base::IOIntReader;
using kiv::base::IOIntWriter;

namespace {

// Real files nest about ten levels deep; a hostile file could nest headers until the stack runs out.
constexpr int kMaxDepth = 64;
thread_local int t_depth = 0;

// Counts one level of nesting while it lives; a walk outside the limit counts nothing.
struct DepthGuard {
  explicit DepthGuard(bool counts) : _counts(counts) {
    if (_counts) ++t_depth;
  }
  ~DepthGuard() {
    if (_counts) --t_depth;
  }
  DepthGuard(const DepthGuard&) = delete;
  DepthGuard& operator=(const DepthGuard&) = delete;

 private:
  const bool _counts;
};

}  // namespace

// ---- IBox

bool IBox::EndOf(long long offset, unsigned long long size, long long& end) {
  if (size > static_cast<unsigned long long>(LLONG_MAX)) return false;
  return !__builtin_add_overflow(offset, static_cast<long long>(size), &end);
}

long long IBox::ReadEnd(IO& io) const {
  const long long streamEnd = io.Size();
  const unsigned long long real = RealSize();
  long long end = 0;
  return real != 0 && EndOf(Offset(), real, end) && end < streamEnd ? end : streamEnd;
}

void IBox::init(unsigned long long code, unsigned size) {
  _fourcc = code;
  _size = size;
  _statistics_size = 8;
  Name(FCCString());
}

IBox::IBox(const char* fcc, unsigned size) {
  uint64_t code = 0;
  if (fcc && *fcc) Convert64(code, fcc);
  init(code, size);
}

IBox::IBox(unsigned fcc, unsigned size) { init(fcc, size); }

IBox::~IBox() {
  // Children go before their parent and in their order, as a recursive delete would take them, but
  // in a loop: a tree built deep must not cost stack. The way back up is kept in the _parent links of
  // the boxes about to go, so the walk needs no memory of its own.
  IBox* c = _child;
  _child = nullptr;
  _last = nullptr;
  if (c) c->_parent = nullptr;
  while (c) {
    if (IBox* first = c->_child) {
      first->_parent = c;
      c = first;
      continue;
    }
    IBox* up = c->_parent;
    IBox* next = c->_next;
    if (up) {
      up->_child = next;
      if (!next) up->_last = nullptr;
    }
    delete c;  // childless by now: its own destructor walks nothing
    if (next) next->_parent = up;
    c = next ? next : up;
  }
}

IBox* IBox::New(unsigned fcc, unsigned size) {
  if (!fcc) {
    LOGE << "!fcc";
    return nullptr;
  }
  return CreateBox(fcc, size);
}

IBox* IBox::New(const char* fcc, unsigned size) {
  uint32_t code = 0;
  if (fcc && *fcc) Convert32(code, fcc);
  return New(static_cast<unsigned>(code), size);
}

const char* IBox::FCCString() const {
  for (int i = 0; i < 8; ++i) _fourcc_text[i] = static_cast<char>((_fourcc >> (8 * i)) & 0xff);
  _fourcc_text[8] = '\0';
  return _fourcc_text;
}

// ---- tree

IBox* IBox::Add(IBox* box) {
  if (!box || box == this) return nullptr;
  box->_parent = this;
  box->_next = nullptr;
  box->_prev = nullptr;
  if (!_child) {
    _child = box;
    _last = box;
    return box;
  }
  _last->_next = box;
  box->_prev = _last;
  _last = box;
  return box;
}

IBox* IBox::Del(IBox* box) {
  if (!box) return nullptr;
  for (IBox* c = _child; c; c = c->_next) {
    if (c != box) continue;
    if (c->_prev)
      c->_prev->_next = c->_next;
    else
      _child = c->_next;
    if (c->_next)
      c->_next->_prev = c->_prev;
    else
      _last = c->_prev;
    return c;
  }
  return nullptr;
}

IBox* IBox::RemoveChild() {
  IBox* first = _child;
  _child = nullptr;
  _last = nullptr;
  return first;
}

// The box and its subtree, in depth-first order.
IBox* IBox::findTree(unsigned long long code) {
  if (_fourcc == code) return this;
  for (IBox* c = _child; c; c = c->_next)
    if (IBox* hit = c->findTree(code)) return hit;
  return nullptr;
}

IBox* IBox::Find(unsigned long long code) {
  if (_fourcc == code) return this;
  if (_child) return findTree(code);
  // A box without children goes on along its following siblings and their subtrees.
  for (IBox* n = _next; n; n = n->_next)
    if (IBox* hit = n->findTree(code)) return hit;
  return nullptr;
}

IBox* IBox::Find(const char* text) {
  uint64_t code = 0;
  if (text && *text) Convert64(code, text);
  return Find(static_cast<unsigned long long>(code));
}

// ---- sizes

void IBox::RealSize(unsigned long long size) {
  if (_size == 1)
    _extended_size = size;
  else
    _size = size;
}

unsigned long long IBox::PayloadSize() const {
  const unsigned long long real = RealSize();
  const unsigned header = PayloadOffset();
  return real > header ? real - header : 0;
}

unsigned long long IBox::statisticsSize() const { return _statistics_size; }

unsigned long long IBox::StatisticsSize() const {
  unsigned long long total = statisticsSize();
  for (const IBox* c = _child; c; c = c->_next) total += c->StatisticsSize();
  return total;
}

long long IBox::Offset() const { return _offset; }
void IBox::Offset(long long offset) { _offset = offset; }

bool IBox::SeekToBoxBegin(IO& io) { return io.Seek(Offset(), kiv::Position::front); }

bool IBox::SeekToBoxEnd(IO& io) {
  long long end = 0;
  return EndOf(Offset(), RealSize(), end) && io.Seek(end, kiv::Position::front);
}

// ---- writing

void IBox::fill(IO& io) {
  IOIntWriter w(io);
  w.Write32be(static_cast<uint32_t>(_size));
  w.Write32(static_cast<uint32_t>(_fourcc));
  if (_size == 1) w.Write64(_extended_size);
}

long long IBox::Fill(IO& io, bool recurse) {
  const long long offset = io.Position();
  Offset(offset);
  fill(io);
  if (recurse)
    for (IBox* c = _child; c; c = c->_next) c->Fill(io, true);
  const long long total = io.Position() - offset;
  const unsigned long long written = total > 0 ? static_cast<unsigned long long>(total) : 0;

  IOIntWriter w(io);
  if (_size == 1) {
    w.Write64be(written, offset + 8, kiv::Position::front);
    _extended_size = written;
  } else {
    w.Write32be(static_cast<uint32_t>(written), offset, kiv::Position::front);
    _size = written;
  }

  if (_size_limit != 0 && (written > 0xffffffffull || (written & 0xffffffffull) > _size_limit)) {
    LOGE << written << ">" << _size_limit;
    if (_size == 1)
      _extended_size = _size_limit;
    else
      _size = _size_limit;
  }
  return total;
}

// ---- reading

bool IBox::parse(IO&) { return true; }

bool IBox::Parse(IO& io, AttrSet& ap, bool recurse) { return parseWalk(io, ap, recurse, ChildWalk()); }

bool IBox::parseWalk(IO& io, AttrSet& ap, bool recurse, const ChildWalk& walk) {
  _parse_ap = &ap;
  parse(io);
  _parse_ap = nullptr;

  long long pos1 = 0;
  if (!EndOf(Offset(), RealSize(), pos1) || pos1 > io.Size()) {
    LOGE << "pos1>io.Size()";
    return false;
  }
  if (recurse && !walkChildren(io, ap, pos1, walk)) return false;

  if (io.Position() == pos1) return true;
  const long long size = io.Size();
  if (size < pos1) {
    if (walk.spansStream)
      LOGE << "pos1>io.Size():" << pos1 << ">" << size;
    else
      LOGE << Name() << ":" << Offset() << "+" << RealSize() << ">" << size;
    pos1 = size;
  }
  if (!io.Seek(pos1, kiv::Position::front)) {
    LOGE << "!io.Seek(pos1, Position::front)";
    return false;
  }
  return true;
}

bool IBox::walkChildren(IO& io, AttrSet& ap, long long pos1, const ChildWalk& walk) {
  DepthGuard depth(walk.depthLimited);
  if (walk.depthLimited && t_depth > kMaxDepth && io.Position() < pos1) {
    LOGE << Name() << ":depth>" << kMaxDepth;
    return true;
  }
  IOIntReader r(io);
  while (io.Position() < pos1) {
    const long long pos0 = io.Position();
    const long long left = pos1 - pos0 - (walk.headerCounted ? 8 : 0);
    const uint32_t size = r.Read32be();
    if (size == 0) {
      LOGE << Hex(pos0);
      LOGE << Name() << ":size==0";
      break;
    }
    if (left < static_cast<long long>(size)) {
      LOGE << Name() << "," << size << ">" << left << "," << Name();
      break;
    }
    const uint32_t fcc = r.Read32();
    if (fcc == 0) {
      LOGE << Name() << ":fcc==0";
      break;
    }
    if (walk.stopAtMoof && fcc == FCC("moof")) break;
    uint64_t extended = 0;
    if (size == 1) {
      extended = r.Read64be();
      if (extended == 0) {
        LOGE << Name() << " err size.";
        break;
      }
    }
    IBox* bx = New(fcc, walk.sizeHint ? size : 0);
    if (!bx) {
      LOGE << "(Hex(fcc))=" << Hex(fcc);
      break;
    }
    bx->Size(size);
    bx->ExtendedSize(extended);
    bx->Offset(pos0);
    Add(bx);
    if (!bx->Parse(io, ap, true)) {
      LOGE << "!bx->Parse(io, ap, recurse)" << "," << bx->Name();
      return false;
    }
  }
  return true;
}

void IBox::reset() {}

void IBox::Reset(bool recursive) {
  reset();
  if (recursive)
    for (IBox* c = _child; c; c = c->_next) c->Reset(true);
}

void IBox::Duration(unsigned long long, IO*) { LOGI << TypeName() << ": no duration to set"; }

// ---- printing

void IBox::fields(AttrSet& out) const {
  out.SetOrAdd("offset", _offset);
  out.SetOrAdd("size", RealSize());
  if (_size == 1) out.SetOrAdd("largesize", "1");
}

void IBox::dumpLine(std::ostream& os, int depth) const {
  AttrSet f;
  fields(f);
  // Codes and texts come from the file: no byte of them may reach a terminal raw.
  os << std::string(static_cast<size_t>(depth > 0 ? depth : 0) * 2, ' ') << kiv::base::Printable(FCCString());
  for (size_t i = 0; i < f.Size(); ++i) os << ' ' << f.Key(i) << '=' << kiv::base::Printable(f.Value(i));
  os << '\n';
}

void IBox::Dump(std::ostream& os, int depth) const {
  // Depth first, in a loop: a deep tree costs a stack entry a level on the heap, not a call frame.
  struct Step {
    const IBox* box;
    int depth;
  };
  std::vector<Step> todo{{this, depth}};
  while (!todo.empty()) {
    const Step s = todo.back();
    todo.pop_back();
    s.box->dumpLine(os, s.depth);
    if (s.box != this && s.box->_next) todo.push_back({s.box->_next, s.depth});
    if (s.box->_child) todo.push_back({s.box->_child, s.depth + 1});
  }
}

std::ostream& operator>>(const IBox* box, std::ostream& os) {
  if (box)
    os << box->TypeName() << "(unknow)";
  else
    os << "IBox*(nullptr)";
  return os;
}

std::ostream& IBox::operator>>(std::ostream& os) {
  os << kiv::dbg::FormatLine(kiv::dbg::I, __FILE__, __LINE__, __func__, Name());
  _child >> os;
  _next >> os;
  return os;
}

std::stringstream& IBox::operator>>(std::stringstream& ss) {
  // The stream form decides, so that a box that prints more prints it here too.
  this->operator>>(static_cast<std::ostream&>(ss));
  return ss;
}

// ---- IMoov

IMoov::IMoov(const char* fcc, unsigned char version) : IBox(fcc, 0), _version(version) { _statistics_size = 12; }
IMoov::IMoov(unsigned fcc, unsigned char version) : IBox(fcc, 0), _version(version) { _statistics_size = 12; }

void IMoov::fill(IO& io) {
  IBox::fill(io);
  IOIntWriter w(io);
  w.Write8(_version);
  w.Write24be(_flags);
}

bool IMoov::parse(IO& io) {
  IOIntReader r(io);
  _version = r.Read8();
  _flags = r.Read24be();
  return !r.Failed();
}

void IMoov::fields(AttrSet& out) const {
  IBox::fields(out);
  out.SetOrAdd("version", static_cast<unsigned>(_version));
  out.SetOrAdd("flags", static_cast<unsigned>(_flags));
}

// ---- IMoovList

IMoovList::IMoovList(const char* fcc) : IMoov(fcc, 0) { _statistics_size = 16; }
IMoovList::IMoovList(unsigned fcc) : IMoov(fcc, 0) { _statistics_size = 16; }

IBox* IMoovList::Add(IBox* box) {
  IBox* added = IMoov::Add(box);
  if (added) ++_num;
  return added;
}

void IMoovList::fill(IO& io) {
  IMoov::fill(io);
  IOIntWriter(io).Write32be(_num);
}

bool IMoovList::parse(IO& io) {
  const bool ok = IMoov::parse(io);
  IOIntReader r(io);
  _num = r.Read32be();
  return ok && !r.Failed();
}

void IMoovList::fields(AttrSet& out) const {
  IMoov::fields(out);
  out.SetOrAdd("entries", _num);
}

// ---- croot

croot::croot() : IBox("root", 0) {}

long long croot::Fill(IO& io, bool recurse) {
  const long long offset = io.Position();
  Offset(offset);
  if (recurse)
    for (IBox* c = _child; c; c = c->Next()) c->Fill(io, true);
  const long long total = io.Position() - offset;
  _size = total > 0 ? static_cast<unsigned long long>(total) : 0;
  return total;
}

void croot::fill(IO&) {}

bool croot::parse(IO& io) {
  const long long size = io.Size();
  _size = size > 0 ? static_cast<unsigned long long>(size) : 0;
  return true;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
