// H.265 Annex-B elementary streams for the command-line host: access units read from a file in
// blocks, the stream's description, and the media and packets that a muxer takes.
//
// An access unit is the NAL units of one picture: delimiter, parameter sets and prefix SEI in front of
// it belong to it, suffix SEI and end-of-sequence units behind it too. A new picture starts at one of
// the units that may only precede a picture (delimiter, parameter sets, prefix SEI, reserved 41-44,
// 48-55) when it follows a slice, or at a slice whose first_slice_segment_in_pic_flag is set. Every
// NAL unit is handed on behind a four-byte start code, the form a camera encoder delivers; three-byte
// start codes and trailing zero bytes of the file are not kept. A VPS, SPS or PPS equal to the first of
// its kind is not handed on: the media carries it (a different one stays in its picture).
//
// The file is never held whole: a block is read at a time, and the buffer grows only to the largest
// NAL unit (bounded by kMaxUnit).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "stream/base/Convert.h"
#include "stream/core/Packet.h"
#include "tools/AnnexBReader.h"

namespace kiv {
namespace stream {
class IMedia;
}  // namespace stream
}  // namespace kiv

namespace boxweave {

using kiv::stream::PacketError;

// Slice types seen in a picture, one bit each.
enum HevcSliceBits : unsigned { kHevcSliceB = 1, kHevcSliceP = 2, kHevcSliceI = 4 };

// NAL unit types the reader and its description tell apart.
enum HevcNal : int {
  kHevcIdrWRadl = 19,
  kHevcIdrNLp = 20,
  kHevcCra = 21,
  kHevcVps = 32,
  kHevcSps = 33,
  kHevcPps = 34,
  kHevcAud = 35,
  kHevcPrefixSei = 39,
  kHevcSuffixSei = 40,
};

inline int HevcNalType(uint8_t header0) { return (header0 >> 1) & 63; }
inline bool HevcIsVcl(int type) { return type < 32; }
// Random access pictures: BLA, IDR, CRA and the reserved 22, 23.
inline bool HevcIsIrap(int type) { return type >= 16 && type <= 23; }

// The fields of a sequence parameter set that a track and a reader need.
struct H265Sps {
  unsigned vps_id = 0;
  unsigned max_sub_layers = 1;
  unsigned profile_space = 0;
  unsigned tier = 0;
  unsigned profile_idc = 0;
  unsigned level_idc = 0;
  unsigned sps_id = 0;
  unsigned chroma_format_idc = 1;
  bool separate_colour_planes = false;
  unsigned coded_width = 0;   // pic_width_in_luma_samples
  unsigned coded_height = 0;  // pic_height_in_luma_samples
  unsigned width = 0;         // conformance window applied
  unsigned height = 0;
  unsigned bit_depth_luma_minus8 = 0;
  unsigned bit_depth_chroma_minus8 = 0;
};

// Parses the SPS NAL unit (two header bytes first, no start code). False with the reason in `why`.
bool ParseH265Sps(const uint8_t* nal, size_t size, H265Sps& sps, std::string& why);
// num_extra_slice_header_bits of a PPS NAL unit (header first); false when it cannot be read.
bool ParseH265PpsExtraBits(const uint8_t* nal, size_t size, unsigned& extraBits);

// key: holds a random access (IRAP) slice; sliceTypes: HevcSliceBits; slices: slice segment units.
struct H265AccessUnit : AnnexBAccessUnit {
  // NAL units from the first one the HEVC track keeps (a prefix SEI or a slice of the kinds it looks
  // for) to the end: the track writes them behind one length. All units when it keeps from the start.
  int unitsKept = 0;
  bool hasVps = false;
  bool hasSps = false;
  bool hasPps = false;
};

class H265Reader : public AnnexBReader {
 public:
  // `block` is the size of one read; small values are for tests.
  explicit H265Reader(size_t block = kBlock);

  // ".h265" or ".hevc", in any case.
  static bool HandlesPath(const std::string& path);

  // Opens the file and checks that it begins as an Annex-B H.265 stream. False with Error() set.
  bool Open(const std::string& path);
  // The next access unit; false at the end of the stream, or on a failure (then Error() is set).
  bool Next(H265AccessUnit& au);

  // The next access unit as a packet: its bytes, key flag, index, pts = index / rate and duration in
  // nanoseconds, and `media` (borrowed). Null at the end, PacketError() on a failure.
  kiv::stream::Packet* NextPacket(kiv::stream::IMedia* media);


  // The first VPS, SPS and PPS met so far (without start code), and whether others, different ones,
  // followed.
  const std::vector<uint8_t>& FirstVps() const { return _vps; }
  const std::vector<uint8_t>& FirstSps() const { return _sps; }
  const std::vector<uint8_t>& FirstPps() const { return _pps; }

 private:
  struct Building : AnnexBReader::Building {
    int keptFrom = -1;  // index of the unit the track keeps from, -1 while none
    bool hasVps = false;
    bool hasSps = false;
    bool hasPps = false;
  };

  void deliver(H265AccessUnit& au);
  unsigned sliceTypeOf(const uint8_t* nal, size_t size, int type, bool& firstInPicture);

  Building _cur;
  std::vector<uint8_t> _vps;
  std::vector<uint8_t> _sps;
  std::vector<uint8_t> _pps;
  unsigned _extraSliceBits = 0;  // of the PPS met last
};

// What a whole pass over the stream finds: what the media description needs before recording starts.
struct H265Description {
  std::string path;
  H265Sps sps;
  std::vector<uint8_t> vpsBytes;  // first VPS, without start code
  std::vector<uint8_t> spsBytes;
  std::vector<uint8_t> ppsBytes;
  long long pictures = 0;
  long long keys = 0;             // pictures with an IRAP slice
  long long firstKey = -1;
  long long gop = 0;              // pictures from the first key picture to the second (see DescribeH264)
  bool hasB = false;
  int maxSlices = 0;
  long long sharedLength = 0;     // pictures whose kept units are more than one (one length over several)
  long long firstShared = -1;
  bool paramSetsChange = false;
  long long droppedUnits = 0;
  long long badSlices = 0;
  unsigned long long bytes = 0;
};

// One pass over the whole file. False with the reason in `error` for a file that cannot be read, is
// not Annex-B H.265, has no picture, no VPS, SPS or PPS, or an SPS that does not parse.
bool DescribeH265(const std::string& path, H265Description& out, std::string& error);

// A new "hevc" media (count 1) with "width", "height", "interlace" (false), "profile", "level",
// "vps"/"ivps", "sps"/"isps", "pps"/"ipps", "struct" ("ibbp" with B slices), "gop" and "framerate". The
// extra data is 00 00 00 01 VPS 00 00 00 01 SPS 00 00 00 01 PPS, and the three pointers point into it.
// Null for an invalid frame rate.
kiv::stream::IMedia* NewH265Media(const H265Description& d, const kiv::base::Fraction& fps);

// Lines a host prints before recording such a stream: what the file cannot keep as it is.
std::vector<std::string> H265Warnings(const H265Description& d);

}  // namespace boxweave
