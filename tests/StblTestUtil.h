// Sample lists, hand-laid tables and a "stbl" reader for the sample-table tests.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "BoxBytes.h"
#include "stream/base/AttrSet.h"
#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/Stbl.h"

namespace stbltest {

using boxtest::Bytes;
using kiv::plugin::mov::ChunkParam;
using List = std::vector<ChunkParam>;

inline ChunkParam Rec(uint64_t offset, uint32_t size, uint32_t duration, uint32_t count = 1, uint8_t flags = 0,
                      uint8_t desc = 1, uint16_t span = 0) {
  ChunkParam r;
  r.offset = offset;
  r.size = size;
  r.duration = duration;
  r.count = count;
  r.packetSpan = span;
  r.descIndex = desc;
  r.flags = flags;
  return r;
}

// A full box (version 0, flags 0) with 32-bit big-endian words behind the header.
inline Bytes Table(const char* fcc, std::initializer_list<uint32_t> words) {
  Bytes payload = {0, 0, 0, 0};
  for (uint32_t w : words) boxtest::Be32(payload, w);
  return boxtest::Box(fcc, payload);
}

inline Bytes Written(kiv::base::IOBuffer& io) { return Bytes(io.Data(), io.Data() + io.Size()); }

// Writes the table as the only child of a "stbl" holding the list; the table's own bytes.
template <class T>
Bytes WriteTable(T& table, const List& list) {
  kiv::plugin::mov::cstbl stbl;
  stbl._list = list;
  stbl.Add(&table);
  kiv::base::IOBuffer io;
  table.Fill(io, true);
  stbl.RemoveChild();  // the table belongs to the caller
  return Written(io);
}

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

inline Bytes StblOf(std::initializer_list<Bytes> tables) {
  Bytes payload;
  for (const auto& t : tables) boxtest::Append(payload, t);
  return boxtest::Box("stbl", payload);
}

}  // namespace stbltest
