// The sample-table boxes. A recording track keeps no tables: it keeps one list of ChunkParam records
// in its "stbl" box (cstbl), and every table box is a view of that list. Writing, each table runs its
// rule (StblRules.h) over the list in one pass; reading, each table parses its entries (parse) and,
// once the list has its final length, writes its part into the list (parseFinal). Also the stand-in
// for boxes that the factory does not know.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "stream/base/reflect/Object.h"
#include "stream/plugin/mp4/common/IBox.h"
#include "stream/plugin/mp4/common/IListFile.h"
#include "stream/plugin/mp4/common/StblRules.h"

namespace kiv {
namespace plugin {
namespace mov {

class cstbl;

// Base of the table boxes. A table is read either into memory by its own parse, or, when the
// "stbl" is big, left in the file behind a reader object found by keywords.
class IStbl : public IMoovList {
 public:
  explicit IStbl(const char* fcc);
  explicit IStbl(unsigned fcc);
  ~IStbl() override;

  bool Parse(IO& io, AttrSet& ap, bool flag = true) override;
  // Second pass of a read file, once the track's list has its final length.
  virtual bool parseFinal();

  // The list of the "stbl" this table stands in; null when the parent is no cstbl.
  std::vector<ChunkParam>* ChunkList() const;

  // Set by a parse that found more entries than a list may hold records: nothing of the table was
  // kept, and the "stbl" fails.
  bool _refused = false;

  // The table reader made by a block-wise Parse; null otherwise. Owned by the box.
  kiv::base::Object* Parser() const { return _parser; }

 protected:
  kiv::base::Object* _parser = nullptr;
};

// "stbl": the track's sample list, and the tables as children.
class cstbl : public IBox {
 public:
  // capacity: records reserved in the list; 0 gives 4096.
  explicit cstbl(unsigned int capacity = 0);

  std::vector<ChunkParam>* ChunkList() const { return const_cast<std::vector<ChunkParam>*>(&_list); }

  // Reads the children, then (unless the tables stay on file) rebuilds the list from them.
  bool Parse(IO& io, AttrSet& ap, bool flag = true) override;
  void reset() override;
  void fields(AttrSet& out) const override;
  // "codec_fcc", "chunk_cnt", "frame_cnt", "frame_with_chunk", "stbl_parser_keywords".
  bool toAttrSet(AttrSet& ap) const override;

  // Entries of "stco", else of "co64".
  unsigned getChunkCount();
  // Samples that "stsc" gives for _chunk_cnt chunks.
  unsigned long long getSampleCount();
  // Spreads the chunk offsets held by the first records over the samples of each chunk.
  bool adjustChunkToFrame();
  // Whether this box is big enough to be read block-wise.
  bool checkExternParserEnable(AttrSet& ap);

  // The most records a read list may hold: 16,777,216 records of 24 bytes, 384 MiB. A day of 120 fps
  // video takes 10,368,000; a count beyond this comes from a forged table (or PCM counted frame by
  // frame for hours), and its parse fails before anything is allocated.
  static constexpr unsigned long long kMaxListRecords = 1ull << 24;

  std::vector<ChunkParam> _list;
  unsigned _frame_cnt = 0;
  unsigned _chunk_cnt = 0;
  bool _frame_with_chunk = false;
  unsigned long long _codec_fcc = 0;
  std::string _keywords;

 private:
  unsigned long long describedSamples(IO& io);
};

// "stts": runs of equal sample durations.
class cstts : public IStbl {
 public:
  using Item = SttsEntry;

  cstts();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  bool parseFinal() override;
  unsigned long long statisticsSize() const override;
  void fields(AttrSet& out) const override;

  std::vector<Item> _items;  // as read; freed by parseFinal
  uint32_t _total_samples = 0;
  unsigned long long _total_duration = 0;

 protected:
  // cxstts and cxstts_file: a record is one sample, whatever its count says.
  bool _unitRun = false;
};

// "stts" of tracks whose records hold samples per chunk in count: each record is one sample.
class cxstts : public cstts {
 public:
  cxstts();
};

// "ctts": not derived from presentation times; a fixed pattern of groups of three records.
class cctts : public IStbl {
 public:
  cctts();
  void fill(IO& io) override;
  // Entries are passed over: the offsets of a read file have no effect on the list.
  bool parse(IO& io) override;
  unsigned long long statisticsSize() const override;
};

// "stsc": one entry whenever the shape of the chunks changes.
class cstsc : public IStbl {
 public:
  using Item = StscEntry;

  cstsc();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  bool parseFinal() override;
  unsigned long long statisticsSize() const override;
  void fields(AttrSet& out) const override;

  // Samples in chunkCount chunks; 0 without a table.
  unsigned long long GetSampleNumber(int chunkCount) const;

  std::vector<Item> _items;
};

// "stsz": a size a sample, or one uniform size.
class cstsz : public IStbl {
 public:
  cstsz();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  bool parseFinal() override;
  unsigned long long statisticsSize() const override;
  void fields(AttrSet& out) const override;

  uint32_t _size = 0;  // uniform size; 0: a table follows
  std::vector<uint32_t> _items;
};

// "stco": chunk offsets, 32 bits.
class cstco : public IStbl {
 public:
  cstco();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  bool parseFinal() override;
  unsigned long long statisticsSize() const override;

  std::vector<uint32_t> _items;
};

// "co64": chunk offsets, 64 bits.
class cco64 : public IStbl {
 public:
  cco64();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  bool parseFinal() override;
  unsigned long long statisticsSize() const override;

  std::vector<uint64_t> _items;
};

// "stss": the 1-based numbers of the sync samples.
class cstss : public IStbl {
 public:
  cstss();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  bool parseFinal() override;
  unsigned long long statisticsSize() const override;

  std::vector<uint32_t> _items;
};

// "sdtp": one dependency byte a record; nothing of it is read back.
class csdtp : public IStbl {
 public:
  csdtp();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  unsigned long long statisticsSize() const override;
};

// A box kept only by its header, for codes without a class of their own. It is skipped when read;
// written, it is a bare header, except "url " which becomes a self-contained data reference.
class cfakebox : public IStbl {
 public:
  explicit cfakebox(unsigned fcc);

  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
