// The box tree of a movie file: the base of every box, full boxes, counted lists, the file root and
// the factory that turns a four-character code into a box.
#pragma once

#include <cstdint>
#include <ostream>
#include <sstream>

#include "stream/base/AttrSet.h"
#include "stream/base/io/IO.h"
#include "stream/base/reflect/Object.h"

namespace kiv {
namespace plugin {
namespace mov {

using kiv::base::AttrSet;
using kiv::base::IO;

// A four-character code as boxes keep it: first character in the lowest byte, so that the raw
// 32-bit value stands in file order.
constexpr unsigned FCC(const char (&s)[5]) {
  return static_cast<unsigned>(static_cast<unsigned char>(s[0])) |
         static_cast<unsigned>(static_cast<unsigned char>(s[1])) << 8 |
         static_cast<unsigned>(static_cast<unsigned char>(s[2])) << 16 |
         static_cast<unsigned>(static_cast<unsigned char>(s[3])) << 24;
}

class IBox : public kiv::base::object {
 public:
  // A null or empty text gives the code 0; up to eight characters are kept.
  explicit IBox(const char* fcc, unsigned size = 0);
  explicit IBox(unsigned fcc, unsigned size = 0);
  ~IBox() override;
  IBox(const IBox&) = delete;
  IBox& operator=(const IBox&) = delete;

  // The box class for a code; unknown codes give a cfakebox, code 0 gives null. Only "mdat" uses size.
  static IBox* New(unsigned fcc, unsigned size = 0);
  static IBox* New(const char* fcc, unsigned size = 0);

  std::ostream& operator>>(std::ostream& os) override;
  std::stringstream& operator>>(std::stringstream& ss) override;

  // ---- virtual operations of every box
  // Appends at the end of the child list; null for null.
  virtual IBox* Add(IBox* box);
  // Unlinks a direct child without destroying it; the box itself when found, else null.
  virtual IBox* Del(IBox* box);
  // Forgets the child list without destroying it; gives its former first box.
  virtual IBox* RemoveChild();
  // The box's own bytes before its children.
  virtual unsigned long long statisticsSize() const;
  // Writes the box (and with recurse its subtree) at the present position and patches the size
  // with what was really written. Returns that size; the stream stands behind the box.
  virtual long long Fill(IO& io, bool recurse = true);
  // Reads the box whose header the caller has read (offset and sizes set), then its children.
  virtual bool Parse(IO& io, AttrSet& ap, bool recurse = true);
  virtual void Reset(bool recursive = true);
  // Header and own content; a subclass writes its fields behind the base's.
  virtual void fill(IO& io);
  // Own content behind the header; the result is not looked at by Parse.
  virtual bool parse(IO& io);
  virtual void reset();
  virtual long long Offset() const;
  virtual void Offset(long long offset);
  // Stores a duration (and patches it in the file when io is given); the base only logs.
  virtual void Duration(unsigned long long value, IO* io);
  // The box's own fields as text pairs, for dumps of a tree.
  virtual void fields(AttrSet& out) const;

  // ---- tree
  IBox* Find(unsigned long long code);
  IBox* Find(const char* text);
  IBox* Next() const { return _next; }
  IBox* Prev() const { return _prev; }
  IBox* Child() const { return _child; }
  IBox* Parent() const { return _parent; }

  // ---- sizes and places
  unsigned long long Size() const { return _size; }
  void Size(unsigned size) { _size = size; }
  unsigned long long ExtendedSize() const { return _extended_size; }
  void ExtendedSize(unsigned long long size) { _extended_size = size; }
  unsigned long long RealSize() const { return _size == 1 ? _extended_size : _size; }
  // Where reading this box's fields must stop: its end, or the end of the stream when that comes first,
  // when the size is 0 (the box runs to the end) or when the end is no file position.
  long long ReadEnd(IO& io) const;
  void RealSize(unsigned long long size);
  unsigned PayloadOffset() const { return _size == 1 ? 16u : 8u; }
  long long PayloadPostion() const { return Offset() + PayloadOffset(); }
  // Bytes behind the header; 0 for a size smaller than its header.
  unsigned long long PayloadSize() const;
  unsigned FourCC() const { return static_cast<unsigned>(_fourcc); }
  unsigned long long Code() const { return _fourcc; }
  const char* FCCString() const;
  // The size the subtree takes when written.
  unsigned long long StatisticsSize() const;
  bool SeekToBoxBegin(IO& io);
  bool SeekToBoxEnd(IO& io);

  // One line a box, indented by depth, with the fields of each.
  void Dump(std::ostream& os, int depth = 0) const;

 protected:
  unsigned long long _statistics_size = 8;
  unsigned long long _size = 0;  // 1: the true size is in _extended_size; 0: up to the end of the file
  unsigned long long _fourcc = 0;
  unsigned _size_limit = 0;  // 0: no limit
  long long _offset = 0;
  unsigned long long _extended_size = 0;
  IBox* _next = nullptr;
  IBox* _prev = nullptr;
  IBox* _child = nullptr;
  IBox* _last = nullptr;  // the last child: appending must not walk a list a file can make long
  IBox* _parent = nullptr;
  AttrSet* _parse_ap = nullptr;  // only while parse runs

  // How a box walks its children; the defaults are those of every box but the fragmented file's.
  struct ChildWalk {
    bool stopAtMoof = false;     // fragments stay unread: their reader takes them one by one
    bool headerCounted = false;  // a child's 8 header bytes are taken off what is left before its size is compared
    bool sizeHint = true;        // the factory is given the child's size
    bool depthLimited = true;    // the walk counts against the nesting limit
    bool spansStream = false;    // the box is the whole stream (only changes a log line)
  };
  // The read of a box whose header has been read: its own fields, its children by walk, and the
  // stream left behind its end.
  bool parseWalk(IO& io, AttrSet& ap, bool recurse, const ChildWalk& walk);

  // offset + size as a file position; false when it does not fit in a signed 64-bit position.
  static bool EndOf(long long offset, unsigned long long size, long long& end);

 private:
  void init(unsigned long long code, unsigned size);
  // The children between the present position and end; false when a child fails its parse.
  bool walkChildren(IO& io, AttrSet& ap, long long end, const ChildWalk& walk);
  IBox* findTree(unsigned long long code);
  void dumpLine(std::ostream& os, int depth) const;

  mutable char _fourcc_text[9] = {};
};

// Prints the dynamic type of a box, for the links of a box in its own print.
std::ostream& operator>>(const IBox* box, std::ostream& os);

// A full box: version and flags behind the header.
class IMoov : public IBox {
 public:
  explicit IMoov(const char* fcc, unsigned char version = 0);
  explicit IMoov(unsigned fcc, unsigned char version = 0);

  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  unsigned char Version() const { return _version; }
  void Version(unsigned char v) { _version = v; }
  unsigned Flags() const { return _flags; }
  void Flags(unsigned v) { _flags = v & 0xffffffu; }

 protected:
  unsigned char _version = 0;
  unsigned _flags = 0;  // 24 bits
};

// A full box with an entry count, raised by every Add.
class IMoovList : public IMoov {
 public:
  explicit IMoovList(const char* fcc);
  explicit IMoovList(unsigned fcc);

  IBox* Add(IBox* box) override;
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  unsigned Num() const { return _num; }
  void Num(unsigned n) { _num = n; }

 protected:
  unsigned _num = 0;
};

// The file itself: its children are the top-level boxes; it has no header of its own.
class croot : public IBox {
 public:
  croot();
  // Writes the children one after another; there is no header to patch.
  long long Fill(IO& io, bool recurse = true) override;
  void fill(IO& io) override;
  // The root spans the whole stream.
  bool parse(IO& io) override;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
