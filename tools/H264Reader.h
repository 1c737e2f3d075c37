// H.264 Annex-B elementary streams for the command-line host: access units read from a file in
// blocks, the stream's description, and the media and packets that a muxer takes.
//
// An access unit is the NAL units of one picture: delimiter, parameter sets and SEI in front of it
// belong to it. A new picture starts at an access unit delimiter, at a parameter set or SEI that follows
// a slice, or at a slice whose first_mb_in_slice is 0. Every NAL unit is handed on behind a four-byte
// start code, the form a camera encoder delivers and the H.264 track turns into lengths; three-byte
// start codes and trailing zero bytes of the file are not kept.
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

// The error value of the packet-producing calls (null is the end of the stream).
using kiv::stream::PacketError;

// Slice types seen in a picture, one bit each (slice_type % 5).
enum SliceBits : unsigned { kSliceP = 1, kSliceB = 2, kSliceI = 4, kSliceSP = 8, kSliceSI = 16 };

// The fields of a sequence parameter set that a track and a reader need.
struct H264Sps {
  unsigned profile_idc = 0;
  unsigned constraint_flags = 0;  // the byte behind profile_idc
  unsigned level_idc = 0;
  unsigned sps_id = 0;
  unsigned chroma_format_idc = 1;
  unsigned bit_depth_luma_minus8 = 0;
  unsigned bit_depth_chroma_minus8 = 0;
  bool frame_mbs_only = true;
  unsigned width = 0;   // luma samples, cropping applied
  unsigned height = 0;  // luma rows of a frame, cropping applied
};

// Parses the SPS NAL unit (header byte first, no start code). False with the reason in `why`.
bool ParseSps(const uint8_t* nal, size_t size, H264Sps& sps, std::string& why);

// key: holds an IDR slice; sliceTypes: SliceBits; slices: IDR, non-IDR and partition A units.
struct H264AccessUnit : AnnexBAccessUnit {
  size_t head = 0;                      // bytes in front of the first slice's start code
  bool hasSps = false;
  bool hasPps = false;
  // Every slice is I or SI.
  bool Intra() const { return sliceTypes && !(sliceTypes & ~unsigned(kSliceI | kSliceSI)); }
};

class H264Reader : public AnnexBReader {
 public:
  // `block` is the size of one read; small values are for tests.
  explicit H264Reader(size_t block = kBlock);

  // ".h264" or ".264", in any case.
  static bool HandlesPath(const std::string& path);

  // Opens the file and checks that it begins as an Annex-B H.264 stream. False with Error() set.
  bool Open(const std::string& path);
  // The next access unit; false at the end of the stream, or on a failure (then Error() is set).
  bool Next(H264AccessUnit& au);

  // The next access unit as a packet: its bytes, key flag, index, pts = index / rate and duration in
  // nanoseconds, and `media` (borrowed). Null at the end, PacketError() on a failure.
  kiv::stream::Packet* NextPacket(kiv::stream::IMedia* media);


  // The first SPS and PPS met so far (without start code), and whether others, different ones, followed.
  const std::vector<uint8_t>& FirstSps() const { return _sps; }
  const std::vector<uint8_t>& FirstPps() const { return _pps; }

 private:
  struct Building : AnnexBReader::Building {
    size_t head = 0;
    bool hasSps = false;
    bool hasPps = false;
  };

  void deliver(H264AccessUnit& au);

  Building _cur;
  std::vector<uint8_t> _sps;
  std::vector<uint8_t> _pps;
};

// What a whole pass over the stream finds: what the media description needs before recording starts.
struct H264Description {
  std::string path;
  H264Sps sps;
  std::vector<uint8_t> spsBytes;  // first SPS, without start code
  std::vector<uint8_t> ppsBytes;  // first PPS, without start code
  long long pictures = 0;
  long long keys = 0;             // pictures with an IDR slice
  long long firstKey = -1;        // index of the first one, -1 without any
  long long gop = 0;              // pictures from the first IDR to the second; see DescribeH264
  bool hasB = false;              // some picture has a B slice
  bool allIntra = false;          // every picture has only I or SI slices
  int maxSlices = 0;              // most slices in one picture
  size_t maxHead = 0;             // most bytes in front of a picture's first slice (SEI, parameter sets)
  bool multiSlice() const { return maxSlices > 1; }
  bool interlace() const { return !sps.frame_mbs_only; }
  bool paramSetsChange = false;
  long long droppedUnits = 0;
  long long badSlices = 0;
  unsigned long long bytes = 0;   // of all access units in four-byte start-code form
};

// One pass over the whole file (reading only, no copies of the units; the cost is one read of the
// file), so that the picture count, "struct" and "gop" are true for all of it. "gop" is the distance
// between the first two IDR pictures; with one IDR picture the pictures from it to the end; without
// one, all pictures. False with the reason in `error` for a file that cannot be read, is not Annex-B,
// has no picture, no SPS, no PPS, or an SPS that does not parse.
bool DescribeH264(const std::string& path, H264Description& out, std::string& error);

// A new "h264" media (count 1) with "width", "height" (of a field when interlaced: the track doubles
// it), "interlace", "profile", "level", "chroma_format_idc", "bit_depth_luma_minus8",
// "bit_depth_chroma_minus8", "sps"/"isps", "pps"/"ipps", "struct" ("ibbp" with B slices, "iiii" all
// intra, else unset), "gop" and "framerate". The extra data is 00 00 00 01 SPS 00 00 00 01 PPS, and
// "sps"/"pps" point into it, so the bytes live as long as the media (its extra data must not be
// replaced). Null for an invalid frame rate.
kiv::stream::IMedia* NewH264Media(const H264Description& d, const kiv::base::Fraction& fps);

// Lines a host prints before recording such a stream: what the file cannot keep as it is.
std::vector<std::string> H264Warnings(const H264Description& d);

}  // namespace boxweave
