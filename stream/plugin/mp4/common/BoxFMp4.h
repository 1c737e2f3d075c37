// The boxes of a fragmented file: the pseudo-root of a parsed file, the fragment boxes moof, mfhd,
// traf, tfhd, tfdt, trun, and the random-access index mfra, tfra, mfro.
//
// The fragment streams build one moof tree a track and write it again for every fragment, which is
// why mfhd and tfdt have update() and why writing a trun consumes its entries.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "stream/plugin/mp4/common/IBox.h"

namespace kiv {
namespace plugin {
namespace mov {
namespace fmp4 {

// The root of a parsed fragmented file. Its own code ("mfp4") is never written; it differs from the
// factory's "fmp4" on purpose, so leave the two words as they are.
class cfmp4 : public IBox {
 public:
  cfmp4();

  // Walks the top level up to the first "moof" and stops there: the fragments are taken one at a
  // time by the reader. The stream is left at the end of the file.
  bool Parse(IO& io, AttrSet& ap, bool recurse = true) override;
  // Never written as a box: only the children, without a header to patch.
  long long Fill(IO& io, bool recurse = true) override;
  void fill(IO& io) override;
  // The whole stream is the body.
  bool parse(IO& io) override;
};

// "moof": header and children.
class cmoof : public IBox {
 public:
  cmoof();
};

// "traf": header and children.
class ctraf : public IBox {
 public:
  ctraf();
};

// "mfra": header and children (tfra boxes, then mfro).
class cmfra : public IBox {
 public:
  cmfra();
};

// "mfhd": the fragment's sequence number.
class cmfhd : public IMoov {
 public:
  explicit cmfhd(unsigned int sequenceNumber = 0);

  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  // Next fragment.
  virtual void update();

  unsigned int SequenceNumber() const { return _sequence_number; }
  void SequenceNumber(unsigned int v) { _sequence_number = v; }

 protected:
  unsigned int _sequence_number = 0;
};

// "tfhd": track defaults of a fragment. The optional fields stand in the box when their flag is set.
class ctfhd : public IMoov {
 public:
  enum : unsigned int {
    kBaseDataOffset = 0x1,
    kSampleDescriptionIndex = 0x2,
    kDefaultSampleDuration = 0x8,
    kDefaultSampleSize = 0x10,
    kDefaultSampleFlags = 0x20,
    kDefaultBaseIsMoof = 0x20000,  // a mark only; adds no field
  };

  // The audio form: a fixed duration for every sample, with or without default sample flags.
  ctfhd(unsigned int duration, bool withFlags);
  // Track only, flags 0.
  explicit ctfhd(unsigned int trackId = 0);

  unsigned long long statisticsSize() const override;
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  unsigned int TrackId() const { return _track_id; }
  void TrackId(unsigned int v) { _track_id = v; }
  unsigned long long BaseDataOffset() const { return _base_data_offset; }
  void BaseDataOffset(unsigned long long v) { _base_data_offset = v; }
  unsigned int SampleDescriptionIndex() const { return _sample_description_index; }
  void SampleDescriptionIndex(unsigned int v) { _sample_description_index = v; }
  unsigned int DefaultSampleDuration() const { return _default_sample_duration; }
  void DefaultSampleDuration(unsigned int v) { _default_sample_duration = v; }
  unsigned int DefaultSampleSize() const { return _default_sample_size; }
  void DefaultSampleSize(unsigned int v) { _default_sample_size = v; }
  unsigned int DefaultSampleFlags() const { return _default_sample_flags; }
  void DefaultSampleFlags(unsigned int v) { _default_sample_flags = v; }

 protected:
  unsigned int _track_id = 0;
  unsigned long long _base_data_offset = 0;
  unsigned int _sample_description_index = 0;
  unsigned int _default_sample_duration = 0;
  unsigned int _default_sample_size = 0;
  unsigned int _default_sample_flags = 0;
};

// "tfdt": decode time of the fragment's first sample, 32 bits in version 0, 64 in version 1.
class ctfdt : public IMoov {
 public:
  explicit ctfdt(unsigned char version = 0);

  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  // The stream sets the value itself before each fragment; nothing to step here.
  virtual void update();

  unsigned long long BaseMediaDecodeTime() const { return _base_media_decode_time; }
  void BaseMediaDecodeTime(unsigned long long v) { _base_media_decode_time = v; }

 protected:
  unsigned long long _base_media_decode_time = 0;
};

// "trun": the samples of a fragment. The per-sample members stand in the box when their flag is set.
class ctrun : public IMoov {
 public:
  enum : unsigned int {
    kDataOffset = 0x1,
    kFirstSampleFlags = 0x4,
    kSampleDuration = 0x100,
    kSampleSize = 0x200,
    kSampleFlags = 0x400,
    kSampleCompositionOffset = 0x800,
  };

  struct Item {
    unsigned int duration;
    unsigned int size;
    unsigned int flags;
    unsigned int composition_offset;
  };

  ctrun();

  unsigned long long statisticsSize() const override;
  // Writes the entries and empties the list, so the same box serves the next fragment.
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  virtual bool parseFinal();

  unsigned int SampleCount() const { return _sample_count; }
  unsigned int DataOffset() const { return _data_offset; }
  void DataOffset(unsigned int v) { _data_offset = v; }
  unsigned int FirstSampleFlags() const { return _first_sample_flags; }
  void FirstSampleFlags(unsigned int v) { _first_sample_flags = v; }
  const std::vector<Item>& Items() const { return _items; }
  void AddItem(unsigned int duration, unsigned int size, unsigned int flags = 0, unsigned int compositionOffset = 0) {
    _items.push_back(Item{duration, size, flags, compositionOffset});
  }
  void ClearItems() { _items.clear(); }

 protected:
  unsigned int _sample_count = 0;
  unsigned int _data_offset = 0;
  unsigned int _first_sample_flags = 0;
  std::vector<Item> _items;
};
static_assert(sizeof(ctrun::Item) == 16, "a trun item is four 32-bit words");

// "tfra": the random-access entries of one track, each the time and the file position of a moof.
// Entries are always 11 bytes: two 32-bit words and the 24-bit value 0x010101, whatever the version
// and the length sizes say.
class ctfra : public IMoov {
 public:
  // time, moof position
  using Entry = std::pair<unsigned int, unsigned int>;

  ctfra();
  // For writing: items holds num pairs (time, position) and must live until the box is written.
  ctfra(unsigned char version, unsigned int num, unsigned int* items);

  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  virtual bool parseFinal();
  virtual unsigned int getEntryNum() const;

  const std::vector<Entry>& getItems() const { return _entries; }
  unsigned int TrackId() const { return _track_id; }
  void TrackId(unsigned int v) { _track_id = v; }
  unsigned int LengthSizes() const { return _length_sizes; }
  void LengthSizes(unsigned int v) { _length_sizes = v; }

 protected:
  unsigned int _track_id = 0;
  unsigned int _length_sizes = 0;
  unsigned int _num = 0;
  std::vector<Entry> _entries;     // read from a file
  unsigned int* _items = nullptr;  // for writing, not owned
};

// "mfro": the size of the whole mfra, the last word of the file, so a reader finds the index from the
// end.
class cmfro : public IMoov {
 public:
  explicit cmfro(unsigned char version = 0);

  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  virtual bool parseFinal();

  unsigned int MfraSize() const { return _size; }
  void MfraSize(unsigned int v) { _size = v; }

 protected:
  unsigned int _size = 0;
};

}  // namespace fmp4
}  // namespace mov
}  // namespace plugin
}  // namespace kiv
