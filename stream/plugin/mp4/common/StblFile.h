// The table-on-file forms of the sample tables. In this mode a track keeps no list for the length of
// the recording: each table is fed one record a sample and writes its entries at once into an IO of
// its own (a kiv::base::IOFileBuffer that moves to a temporary file when it outgrows its reservation).
// At the end the finished table, header included, is copied into the output; when it sits in a file,
// a cfree_concate in front of it has aligned the output to a cluster first. The layouts are those of
// the plain tables, and each form runs the same rule (StblRules.h) as its plain table, one record a
// step, so for the same records the bytes are the same.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "stream/plugin/mp4/common/Stbl.h"

namespace kiv {
namespace plugin {
namespace mov {

// What every _file table adds to its plain table.
class IStblFile {
 public:
  virtual ~IStblFile() = default;
  IStblFile(const IStblFile&) = delete;
  IStblFile& operator=(const IStblFile&) = delete;

  // One step of the recording: the list holds the new record(s); the table takes the last one (the
  // sample sizes take the first). Writes go to the table's own IO, whatever io is.
  virtual void fill(IO& io, std::vector<ChunkParam>* list) = 0;
  // Finishes the table in its own IO (last entry, count) and flushes that IO; io is not used.
  virtual void fillFinal(IO& io) = 0;

  IO* TableIO() const { return _io; }

 protected:
  explicit IStblFile(IO& io) : _io(&io) {}

  // The finished table into the output: the file's content when the table went to a file, else the
  // buffer's bytes.
  void copyTable(IO& out);
  // The record a step works on; a missing one reads as zeros, with a log line.
  static const ChunkParam& lastOf(const std::vector<ChunkParam>* list);
  static const ChunkParam& firstOf(const std::vector<ChunkParam>* list);
  // One record into the table's rule; the entries it completes go to the table's IO at once.
  template <class Rule, class Put>
  void feed(Rule& rule, const ChunkParam& r, Put put) {
    BeOut out(*_io);
    rule.add(r, [&](const auto& e) { put(out, e); });
  }
  // The count into the header, and the table out to its medium.
  void finishTable(uint32_t count);

  IO* _io;              // not owned
  bool _first = true;   // no header written yet
  long long _countPos = 0;  // the count field in _io
};

// The box side that every _file table shares: writing the box finishes its table and copies it in,
// and once the table has begun, the box is as big as the table.
template <class Table>
class TStblFile : public Table, public IStblFile {
 public:
  void fill(IO& out) override {
    fillFinal(out);
    copyTable(out);
  }
  using IStblFile::fill;
  unsigned long long statisticsSize() const override {
    return _first ? Table::statisticsSize() : static_cast<unsigned long long>(std::max(0LL, _io->Size()));
  }

 protected:
  explicit TStblFile(IO& io) : IStblFile(io) {}
  // At the first record: the table's header with a count of 0 at the start of the file, and where
  // that count lies, for the final patch.
  void writeHeader() {
    _first = false;
    this->_num = 0;
    static_cast<IStbl&>(*this).IStbl::fill(*_io);
    _countPos = _io->Position() - 4;
  }
};

class cstts_file : public TStblFile<cstts> {
 public:
  using TStblFile::fill;
  explicit cstts_file(IO& io);
  void fill(IO& io, std::vector<ChunkParam>* list) override;
  void fillFinal(IO& io) override;

 private:
  SttsRule _rule;
  void begin();
};

// "stts" whose records count one sample each (video with several frames a chunk).
class cxstts_file : public cstts_file {
 public:
  explicit cxstts_file(IO& io);
};

class cctts_file : public TStblFile<cctts> {
 public:
  using TStblFile::fill;
  explicit cctts_file(IO& io);
  void fill(IO& io, std::vector<ChunkParam>* list) override;
  void fillFinal(IO& io) override;

 private:
  CttsRule _rule;
  void begin();
};

class cstsc_file : public TStblFile<cstsc> {
 public:
  using TStblFile::fill;
  explicit cstsc_file(IO& io);
  void fill(IO& io, std::vector<ChunkParam>* list) override;
  void fillFinal(IO& io) override;

 private:
  StscRule _rule;
  void begin();
};

class cstsz_file : public TStblFile<cstsz> {
 public:
  using TStblFile::fill;
  explicit cstsz_file(IO& io);
  void fill(IO& io, std::vector<ChunkParam>* list) override;
  void fillFinal(IO& io) override;

 private:
  void begin();
  StszRule _rule;
};

// "stco" and "co64" on file; Entry is the width of an offset in the table.
template <class Table, class Entry>
class TChunkOffsetFile : public TStblFile<Table> {
 public:
  using TStblFile<Table>::fill;
  void fill(IO& io, std::vector<ChunkParam>* list) override;
  void fillFinal(IO& io) override;
  // "io" (an IO pointer standing at the box's start) and "shift_offset": adds the shift to the
  // offsets of the table written there.
  bool fromAttrSet(const AttrSet& ap) override;

 protected:
  explicit TChunkOffsetFile(IO& io) : TStblFile<Table>(io) {}

 private:
  ChunkOffsetRule _rule;
};

class cstco_file : public TChunkOffsetFile<cstco, uint32_t> {
 public:
  explicit cstco_file(IO& io) : TChunkOffsetFile(io) {}
};

class cco64_file : public TChunkOffsetFile<cco64, uint64_t> {
 public:
  explicit cco64_file(IO& io) : TChunkOffsetFile(io) {}
};

class cstss_file : public TStblFile<cstss> {
 public:
  using TStblFile::fill;
  explicit cstss_file(IO& io);
  void fill(IO& io, std::vector<ChunkParam>* list) override;
  void fillFinal(IO& io) override;

 private:
  StssRule _rule;
  void begin();
};

class csdtp_file : public TStblFile<csdtp> {
 public:
  using TStblFile::fill;
  explicit csdtp_file(IO& io);
  void fill(IO& io, std::vector<ChunkParam>* list) override;
  void fillFinal(IO& io) override;

 private:
  void begin();
};

// The sample tables a track may have, for code that builds a track's "stbl" without knowing in which
// form its tables are kept.
enum class StblKind { stts, ctts, stss, sdtp, stsc, stsz, stco, co64 };

// The table's four-character code as text.
const char* StblKindName(StblKind kind);
// A new table box of the kind: the plain form, or with onFile the _file form writing into it. "stts"
// is the form whose records count one sample each (cxstts), the one every track here uses.
IStbl* NewTable(StblKind kind, IO* onFile);

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
