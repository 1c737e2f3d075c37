// The boxes above the sample tables: the file's top level, the movie and track headers, and the
// media information boxes between "mdia" and "stbl". Each writes (fill), reads (parse) and prints
// (fields) its own fields; the header, the children and the size are the business of IBox.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "stream/plugin/mp4/common/IBox.h"

namespace kiv {
namespace plugin {
namespace mov {

// ============================================================ file top level

// "ftyp": major brand, minor version and up to four compatible brands of the box's own, or a list
// of the file-type profile that _compatible_brands points to.
class cftyp : public IBox {
 public:
  cftyp();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override;

  unsigned _major_brand;  // raw
  unsigned _minor_version = 0;
  unsigned _brands[4];  // the inner array; raw codes
  unsigned* _compatible_brands;
  unsigned _compatible_brands_cnt = 2;
};

// "moov": only children. It notes where it was written, which the muxer uses to find it again.
class cmoov : public IBox {
 public:
  cmoov();
  void fill(IO& io) override;
};

// "mdat": a header only; the media goes behind it. The first fill writes the header, each later
// fill rewrites the size in place (the muxer grows the size as it appends samples).
class cmdat : public IBox {
 public:
  // 1 selects the 64-bit size form.
  explicit cmdat(unsigned size = 0);
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void reset() override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return _size == 1 ? 16 : 8; }

  // After the first fill: where the size field is (the 64-bit one in that form).
  // After a parse: where the body starts.
  unsigned long long _pos = 0;

 private:
  bool _written = false;  // the header is in the file; position 0 is a valid place for it
};

// "free": a header and _write_size - 8 zero bytes.
class cfree : public IBox {
 public:
  cfree();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override;

  void UpdateWriteSize(unsigned int size) { _write_size = size; }

  unsigned _write_size = 0;  // 8 or less: a bare header
};

// "free" as a filler that pads the file to the next cluster boundary of its file system, so that
// a table kept in a file of its own can be joined to the output by whole clusters. _cond asks
// whether the table will be joined at all.
class cfree_concate : public cfree {
 public:
  // cluster 0 stands for 0x20000.
  explicit cfree_concate(unsigned cluster = 0, std::function<bool(void*)> cond = nullptr);
  // Writes the filler alone (no children) and patches its size only when something was written.
  long long Fill(IO& io, bool flag = true) override;
  void fill(IO& io) override;
  void fields(AttrSet& out) const override;

  unsigned _cluster;
  std::function<bool(void*)> _cond;
};

// "udta": a header and a payload that the box does not own.
class cudta : public IBox {
 public:
  cudta();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override;

  void Payload(const void* data, unsigned size) {
    _data = data;
    _size = size;
  }

  // The payload's size. It hides IBox::_size: the header's size is reached as Size()/RealSize().
  unsigned _size = 0;
  const void* _data = nullptr;
};

// "QUOR": four raw bytes, inside "udta".
class cQUOR : public IBox {
 public:
  cQUOR();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return 12; }

  unsigned _quor = 0;  // raw
};

// "uuid": the Spherical Video V1 box: the identifier and the XML pieces, each an allocated copy.
class cuuid : public IBox {
 public:
  struct Atom {
    unsigned char* _data = nullptr;
    unsigned _len = 0;
  };

  cuuid();
  explicit cuuid(const char* fcc);
  ~cuuid() override;
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override;

  // Builds every piece (frees what was there).
  void UuidSphericalInit();
  // An allocated copy of len bytes.
  static Atom UuidSphericalAtomInit(const unsigned char* data, unsigned int len);
  void UuidAtomFree();

  Atom _uuid;
  Atom _xml_header;
  Atom _rdf_open;
  Atom _spherical;
  Atom _stitched;
  Atom _stitching_software;
  Atom _projection_type;
  Atom _rdf_close;

 private:
  // The pieces in file order.
  static Atom cuuid::*const kOrder[8];
};

// ============================================================ movie and track

// "mvhd". Version 1 writes the times and the duration on 64 bits.
class cmvhd : public IMoov {
 public:
  explicit cmvhd(unsigned char version = 0);
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return _version == 1 ? 120 : 108; }
  bool fromAttrSet(const AttrSet& ap) override;
  void Duration(unsigned long long duration, IO* io) override;

  unsigned long long _createtime = 0;
  unsigned long long _modifytime = 0;
  unsigned _timescale = 60000;
  unsigned long long _duration = 0;
  unsigned _rate = 0x10000;
  unsigned short _volume = 256;
  unsigned _matrix[9] = {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};
  unsigned _preview_time = 0;
  unsigned _preview_duration = 0;
  unsigned _poster_time = 0;
  unsigned _selection_time = 0;
  unsigned _selection_duration = 0;
  unsigned _current_time = 0;
  unsigned _next_track_id = 0;
};

// "trak", "mdia", "mvex": only children.
class ctrak : public IBox {
 public:
  ctrak();
};

class cmdia : public IBox {
 public:
  cmdia();
};

class cmvex : public IBox {
 public:
  cmvex();
};

// "tkhd". Width and height are the integer halves of 16.16 numbers.
class ctkhd : public IMoov {
 public:
  explicit ctkhd(unsigned char version = 0);
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return _version == 1 ? 104 : 92; }
  bool fromAttrSet(const AttrSet& ap) override;
  void Duration(unsigned long long duration, IO* io) override;

  unsigned long long _createtime = 0;
  unsigned long long _modifytime = 0;
  unsigned _track_id = 0;
  unsigned long long _duration = 0;
  unsigned short _layer = 0;
  unsigned short _alternate_group = 0;
  unsigned short _volume = 0;
  unsigned _matrix[9] = {0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};
  unsigned short _width = 0;
  unsigned short _height = 0;
};

// "mdhd".
class cmdhd : public IMoov {
 public:
  explicit cmdhd(unsigned char version = 0);
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return _version == 1 ? 44 : 32; }
  bool fromAttrSet(const AttrSet& ap) override;
  void Duration(unsigned long long duration, IO* io) override;

  unsigned long long _createtime = 0;
  unsigned long long _modifytime = 0;
  unsigned _timescale = 0;
  unsigned long long _duration = 0;
  unsigned short _language = 0;
  unsigned short _quality = 0;
};

// "edts": a header written once, then its children.
class cedts : public IBox {
 public:
  explicit cedts(unsigned size = 0);
  void fill(IO& io) override;
  void fields(AttrSet& out) const override;

  unsigned long long _pos = 0;  // the size field of the written header (the 64-bit one in that form)

 private:
  bool _written = false;
};

// "elst": the edit list.
class celst : public IMoov {
 public:
  struct Item {
    unsigned long long segment_duration;
    long long media_time;
    unsigned rate;
  };

  explicit celst(unsigned char version = 0);
  void Add(const Item& item);
  using IMoov::Add;
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void reset() override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override;
  // One item of that duration in place of the list; in the file only the first duration changes.
  void Duration(unsigned long long duration, IO* io) override;

  unsigned _num = 0;
  std::vector<Item> _items;
};

// "tapt": a header written once, then "clef", "prof" and "enof". Read, it skips its children.
class ctapt : public IBox {
 public:
  explicit ctapt(unsigned size = 0);
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  unsigned long long _pos = 0;

 private:
  bool _written = false;
};

// The common layout of "clef", "prof" and "enof": a width and a height as integer halves of 16.16.
class caperture : public IMoov {
 public:
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return 20; }

  unsigned short _width = 0;
  unsigned short _height = 0;

 protected:
  explicit caperture(const char* fcc) : IMoov(fcc, 0) {}
};

class cclef : public caperture {
 public:
  cclef() : caperture("clef") {}
};

class cprof : public caperture {
 public:
  cprof() : caperture("prof") {}
};

class cenof : public caperture {
 public:
  cenof() : caperture("enof") {}
};

// "mehd": the duration of a fragmented movie.
class cmehd : public IMoov {
 public:
  explicit cmehd(unsigned char version = 0);
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return _version == 1 ? 20 : 16; }
  void Duration(unsigned long long duration, IO* io) override;
  unsigned long long Duration() const { return _duration; }

  unsigned long long _duration = 0;
};

// "trex": a track's fragment defaults.
class ctrex : public IMoov {
 public:
  explicit ctrex(unsigned char version = 0);
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return 32; }

  unsigned _track_id = 0;
  unsigned _default_sample_description_index = 1;
  unsigned _default_sample_duration = 0;
  unsigned _default_sample_size = 0;
  unsigned _default_sample_flags = 0;
};

// ============================================================ media information

// "minf", "dinf", "gmhd": only children.
class cminf : public IBox {
 public:
  cminf();
};

class cdinf : public IBox {
 public:
  cdinf();
};

class cgmhd : public IBox {
 public:
  cgmhd();
};

// "hdlr": the handler, with a counted name of at most 32 bytes.
class chdlr : public IMoov {
 public:
  chdlr();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return 33u + _name_len; }

  // Copies at most 32 bytes of a name; the length byte takes what was kept.
  void ComponentName(const void* name, unsigned len);

  unsigned _component_type = 0;          // raw
  unsigned _component_subtype = 0;       // raw
  unsigned _component_manufacturer = 0;  // raw
  unsigned _component_flags = 0;
  unsigned _component_flags_mask = 0;
  unsigned char _name_len = 0;
  unsigned char _name[32] = {};
};

// "vmhd".
class cvmhd : public IMoov {
 public:
  cvmhd();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return 20; }

  unsigned short _graphics_mode = 0;
  unsigned short _opcolor_red = 0;
  unsigned short _opcolor_green = 0;
  unsigned short _opcolor_blue = 0;
};

// "gmin": the layout of "vmhd" and a balance behind it.
class cgmin : public cvmhd {
 public:
  cgmin();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return 24; }

  unsigned short _balance = 0;
};

// "smhd".
class csmhd : public IMoov {
 public:
  csmhd();
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;
  unsigned long long statisticsSize() const override { return 16; }

  unsigned short _balance = 0;
};

// "dref": its entries are children; the count written is the number added.
class cdref : public IMoovList {
 public:
  cdref();
  bool parse(IO& io) override;
};

// "url " and "alis": data references with nothing but version and flags.
class curl_ : public IMoov {
 public:
  curl_();
  bool parse(IO& io) override;
};

class calis : public IMoov {
 public:
  calis();
  // The entry's code is the track's data reference type.
  explicit calis(unsigned int fourcc);
  bool parse(IO& io) override;
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
