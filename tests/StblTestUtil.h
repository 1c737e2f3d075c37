// Sample lists, hand-laid tables and a "stbl" reader for the sample-table and track tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <tuple>
#include <vector>

#include "BoxBytes.h"
#include "io_test_util.h"
#include "stream/base/AttrSet.h"
#include "stream/base/io/IUrl.h"
#include "stream/plugin/mp4/common/Stbl.h"

namespace stbltest {

using boxtest::Bytes;
using kiv::plugin::mov::ChunkParam;
using List = std::vector<ChunkParam>;

inline ChunkParam Rec(uint64_t offset, uint32_t size, uint32_t duration, uint32_t count = 1, uint8_t flags = 0,
                      uint8_t desc = 1, uint16_t span = 0) {
  return ChunkParam{offset, size, duration, count, span, desc, flags};
}

// Every field but the time span, which no table holds; compared as a whole, printed on a mismatch.
inline std::vector<std::tuple<uint64_t, uint32_t, uint32_t, uint32_t, int, int>> Fields(const List& l) {
  std::vector<std::tuple<uint64_t, uint32_t, uint32_t, uint32_t, int, int>> v;
  for (const ChunkParam& r : l) v.emplace_back(r.offset, r.size, r.duration, r.count, r.descIndex, r.flags);
  return v;
}

using boxtest::kit::H;  // bytes laid out by hand

// A full box (version 0, flags 0) with 32-bit big-endian words behind the header.
inline Bytes Table(const char* fcc, std::initializer_list<uint32_t> words) {
  Bytes payload = {0, 0, 0, 0};
  for (uint32_t w : words) boxtest::Be32(payload, w);
  return boxtest::Box(fcc, payload);
}

inline Bytes Written(kiv::base::IOBuffer& io) { return Bytes(io.Data(), io.Data() + io.Size()); }

// A table as written, fed from the list of the "stbl" that takes it.
inline Bytes WriteTable(kiv::plugin::mov::IBox* table, const List& list) {
  kiv::plugin::mov::cstbl stbl;
  stbl._list = list;
  stbl.Add(table);
  kiv::base::IOBuffer io;
  table->Fill(io, true);
  return Written(io);
}

inline Bytes StblOf(std::initializer_list<Bytes> tables) { return boxtest::Box("stbl", boxtest::Cat(tables)); }

// A file with a top-level "stbl", read as the demuxer reads it.
struct ParsedStbl {
  kiv::base::AttrSet ap;
  kiv::base::IOBuffer io;
  kiv::plugin::mov::croot root;
  bool ok = false;
  kiv::plugin::mov::cstbl* stbl = nullptr;

  explicit ParsedStbl(const Bytes& bytes, const char* attrs = "codec_fcc=1") : ap(attrs) {
    boxtest::Load(io, bytes);
    ok = root.Parse(io, ap, true);
    stbl = dynamic_cast<kiv::plugin::mov::cstbl*>(root.Find("stbl"));
  }
  const List& list() const { return stbl->_list; }
};

// A drive letter of the temporary paths pointing into a fresh directory (or a missing one below it).
struct MappedDrive {
  iotest::TempDir dir;
  char letter;
  explicit MappedDrive(char drive = 'q', const std::string& sub = "") : letter(drive) {
    kiv::base::DriveMap(letter, sub.empty() ? dir.path().c_str() : dir.file(sub).c_str());
  }
  ~MappedDrive() { kiv::base::DriveMap(letter, nullptr); }
  MappedDrive(const MappedDrive&) = delete;
  MappedDrive& operator=(const MappedDrive&) = delete;
};

}  // namespace stbltest
