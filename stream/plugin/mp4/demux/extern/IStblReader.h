// A reader of one sample table that stays in the file: the table box (IStbl) makes it by keywords when
// its "stbl" is read block-wise, hands it "init", and skips its payload. From then on the reader
// answers lookups one entry or two at a time, from a view of the file of its own: a block buffer over
// a second handle for a big table, a copy of the payload for a table of at most one block. Memory is a
// block a table, whatever the length of the file.
#pragma once

#include <cstdint>

#include "stream/base/AttrSet.h"
#include "stream/base/io/IO.h"
#include "stream/base/reflect/Object.h"
#include "stream/plugin/mp4/common/StblRules.h"

namespace kiv {
namespace plugin {
namespace mov {

class IStbl;

class IStblReader : public kiv::base::Object {
 public:
  // What passes through the readers of a track for one lookup; each reader fills what it knows.
  struct Item {
    uint64_t pos = 0;                 // file position of the chunk (stco, co64)
    uint32_t chunk = 0;               // from 1; 0: not known (the caller or stsc)
    uint32_t sample = 0;              // from 1; 0: not known (the caller or stsc)
    uint32_t samples_per_chunk = 0;   // stsc
    uint32_t desc_index = 0;          // stsc
    uint32_t duration = 0;            // stts
    uint32_t size = 0;                // stsz
    bool is_key = true;               // stss, else true
    uint32_t chunk_first_sample = 0;  // stsc
  };

  static constexpr int kDefaultBlock = 32768;

  IStblReader() = default;
  ~IStblReader() override;
  IStblReader(const IStblReader&) = delete;
  IStblReader& operator=(const IStblReader&) = delete;

  // Property "init": the attributes of the parse, with "io" (the stream, standing at the payload) and
  // "stbl" (the table box) as pointers. Once only.
  virtual bool Init(kiv::base::AttrSet& ap);
  // Place in the parser's chain: smaller first.
  virtual int Order() const { return _order; }
  virtual bool Parse(Item& item) = 0;

  IStbl* Box() const { return _stbl; }
  // The whole table is in memory (no second handle on the file).
  bool Buffered() const { return _reader && _buffered; }
  // The table is read through a block of its own, over a second handle on the file.
  bool Blocks() const { return _reader && !_buffered; }
  // Entries the reader may step through, as the header counts them and the box holds them.
  uint32_t Entries() const { return _entries; }

 protected:
  // The table's own part of Init: the base reads version, flags and the entry count.
  virtual bool init(kiv::base::AttrSet& ap);

  kiv::base::IO* CreateIOBlock(kiv::base::IO& io, kiv::base::AttrSet& ap);
  kiv::base::IO* CreateIOBuffer(kiv::base::IO& io, kiv::base::AttrSet& ap);

  // Reads at the present position. Bytes behind the table's last entry read as zeros without a read
  // (lookahead that runs off a table's end); a read inside the table that fails, in a file cut short,
  // logs and gives zeros and false.
  bool read32(uint32_t& v);
  bool read64(uint64_t& v);
  // Entries in the layouts the writers use, their fields in order.
  bool read(SttsEntry& e);
  bool read(StscEntry& e);
  bool seek(long long pos);
  long long position();
  // Where the entries start and how many the header counts: the count is cut to what the box holds,
  // with a log line, so that no walk runs on through the boxes behind the table.
  void tableAt(long long firstEntry, uint32_t count);

  kiv::base::IOIntReader* _reader = nullptr;  // owns the view below it
  int _blk_size = 0;
  long long _list_begin_pos = 0;  // first entry the reader may step back to
  long long _list_end_pos = 0;    // end of the entries the reader steps through
  int _list_item_size = 4;
  IStbl* _stbl = nullptr;  // not owned
  int _order = 0;

  long long _payload_pos = 0;  // file position of the box's payload
  long long _file_size = 0;    // of the stream the box was read from
  long long _table_end = -1;   // behind the last entry the box holds; -1 while the header is read
  uint32_t _entries = 0;
  bool _buffered = false;

 private:
  bool readBytes(unsigned char* p, int n);
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" void RegisterIStblReader();
