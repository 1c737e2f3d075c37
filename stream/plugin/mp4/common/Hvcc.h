// The HEVC decoder configuration record "hvcC". Writing takes its profile, chroma format, bit depths
// and temporal values from the parameter sets themselves, with the small bit reader below.
#pragma once

#include <cstddef>
#include <cstdint>

#include "stream/plugin/mp4/common/IBox.h"

namespace kiv {
namespace plugin {
namespace mov {

class BoxReader;

// A reader of bits, most significant first, over [p, p_end).
struct bs_t {
  const uint8_t* p = nullptr;
  const uint8_t* p_end = nullptr;
  int i_left = 8;  // bits left in *p
};

void bs_init(bs_t* s, const void* data, size_t size);
// n bits (up to 32); past the end, what was read so far.
uint32_t bs_read(bs_t* s, int n);
// One bit; 0 past the end.
uint32_t bs_read1(bs_t* s);
// Skips n bits; it stops at the end, where every later read gives 0.
void bs_skip(bs_t* s, int n);
// Exponential Golomb code, unsigned.
uint32_t bs_read_ue(bs_t* s);
// Copies size bytes and drops the 03 of each 00 00 03; a sequence in the last three bytes stays.
// dst must hold size bytes. Returns the bytes written.
size_t nal_decode(const uint8_t* src, uint8_t* dst, size_t size);

class chvcC : public IBox {
 public:
  // Start codes and the three parameter sets of one stream fit easily.
  static constexpr size_t kNalBufSize = 512;
  static constexpr size_t kMaxNalOfKind = 16;

  chvcC();
  unsigned long long statisticsSize() const override;
  void fill(IO& io) override;
  bool parse(IO& io) override;
  void fields(AttrSet& out) const override;

  // Copies parameter sets in start-code form into _nal_buf; false (and nothing copied) when they do
  // not fit.
  bool SetNal(const void* data, size_t size);

  // data points at the NAL header of a VPS; size is what may be read from there.
  static void hevcParseVPS(const uint8_t* data, size_t size, uint8_t* ptl, uint8_t& numTemporalLayer,
                           uint8_t& temporalIdNested);
  // data points at the NAL header of an SPS.
  static void hevcParseSPS(const uint8_t* data, size_t size, uint8_t& chroma, uint8_t& lumaDepth,
                           uint8_t& chromaDepth);

  uint8_t _configuration_version = 1;
  // Profile and level as the track sets them; parse stores the temporal byte in _level.
  uint8_t _profile = 1;
  uint8_t _level = 0;
  uint8_t _profile_tier_level[12] = {};
  uint8_t _i_chroma_idc = 1;
  uint8_t _i_bit_depth_luma_minus8 = 3;
  uint8_t _i_bit_depth_chroma_minus8 = 0;
  uint8_t _num_of_arrays = 0;
  uint8_t _i_numTemporalLayer = 0;
  uint8_t _b_temporalIdNested = 0;
  uint16_t _avg_frame_rate = 0;  // read, never written
  uint16_t _sps_count = 0;
  uint16_t _pps_count = 0;
  uint16_t _vps_count = 0;
  const unsigned char* _pps = nullptr;
  const unsigned char* _sps = nullptr;
  const unsigned char* _vps = nullptr;
  uint16_t _pps_size = 0;
  uint16_t _sps_size = 0;
  uint16_t _vps_size = 0;
  uint32_t _nal_size = 0;
  // Four more bytes than the parameter sets may use: fill ends the scan with a start code of its own.
  unsigned char _nal_buf[kNalBufSize + 4] = {};

 private:
  // Reads one parameter-set array of the given type into _nal_buf behind `used`.
  void parseArray(BoxReader& in, const char* what, size_t& used, const unsigned char*& set, uint16_t& size,
                  uint16_t& count);
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
