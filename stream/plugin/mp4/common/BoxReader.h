// Bounded reading of one box's fields.
#pragma once

#include <cstdint>

#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IBox.h"

namespace kiv {
namespace plugin {
namespace mov {

// Reads a box's fields without passing its read end (IBox::ReadEnd), so that a parse cannot wander
// into its neighbours whatever the box's counts and sizes say. It serves two ways:
// - as fields: U8() ... U64() read whole fields; a field that is not wholly there reads as zero, and so
//   does everything behind it (the box is "short"); Finish() reports it;
// - as a stream that ends at the box's end, for readers that take an IO: reads are cut there, and what
//   was asked for beyond it is reported once, when the reader goes.
class BoxReader : public kiv::base::IO {
 public:
  // What becomes of bytes the parse did not read. A box without children skips them, so that the
  // box walk does not take them for children.
  enum class Rest { keep, skip };

  BoxReader(IO& io, const IBox& box, Rest rest = Rest::keep);
  ~BoxReader() override;
  BoxReader(const BoxReader&) = delete;
  BoxReader& operator=(const BoxReader&) = delete;

  // Positions are those of the underlying stream; Size() is the box's read end.
  long long Size() override { return _end; }
  long long Position() override { return _io.Position(); }
  bool Seek(long long offset, kiv::Position whence) override;
  long long Read(void* data, long long size) override;
  long long Write(const void*, long long) override { return -1; }

  // Bytes between the position and the end; 0 once the box is short.
  long long Left();
  // Are n more bytes there? A no makes the box short; with a field's name the first miss is logged.
  bool Has(long long n, const char* what = nullptr);
  bool Short() const { return _short; }

  uint8_t U8() { return Has(1) ? _r.Read8() : 0; }
  uint16_t U16() { return Has(2) ? _r.Read16be() : 0; }
  uint32_t U24(const char* what = nullptr) { return Has(3, what) ? _r.Read24be() : 0; }
  uint32_t U32(const char* what = nullptr) { return Has(4, what) ? _r.Read32be() : 0; }
  uint64_t U64(const char* what = nullptr) { return Has(8, what) ? _r.Read64be() : 0; }
  // A four-character code, kept in file order.
  uint32_t Raw32() { return Has(4) ? _r.Read32() : 0; }
  // Version 1 fields are 64 bits wide, version 0 fields 32.
  uint64_t Wide(bool v1) { return v1 ? U64() : U32(); }

  // Up to n bytes into dst; what does not come reads as zero and makes the box short. Returns how
  // many came.
  long long Bytes(void* dst, long long n);
  // Passes over a field of n bytes; when they are not all there the box is short and nothing moves.
  void Skip(long long n);
  // Moves on by up to n bytes, never past the end; nothing counts as missing.
  void SkipUpTo(long long n);
  // Places the stream at the end, where it is not there yet; false when the stream cannot go there.
  bool SkipRest();
  // Bytes asked for through Read beyond the end.
  long long Missing() const { return _missing; }

  // The result of a field parse: false, with one line naming the box, when its fields fell short.
  bool Finish();

 private:
  IO& _io;
  const IBox& _box;
  kiv::base::IOIntReader _r;
  long long _end = 0;
  long long _missing = 0;
  bool _short = false;
  Rest _rest;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
