// libFuzzer target: any bytes as an H.264 and an H.265 Annex B stream, an ADTS stream, Motion-JPEG, a
// WAVE file, raw PCM and SubRip text, through the readers that the recorder takes its input from. They
// read paths, so the bytes go to an anonymous file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "stream/base/dbg/Log.h"
#include "tools/AdtsReader.h"
#include "tools/H264Reader.h"
#include "tools/H265Reader.h"
#include "tools/MjpegReader.h"
#include "tools/PcmReader.h"
#include "tools/SrtReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int fd = [] {
    kiv::dbg::SetLevel(0);
    return memfd_create("es_reader_fuzz", 0);
  }();
  if (fd < 0 || size < 1) return 0;
  // The first byte sets the read block, so that units and frames cross block borders.
  const size_t block = size_t{64} << (data[0] & 7);
  const unsigned channels = 1 + ((data[0] >> 3) & 1u);  // of raw PCM
  ++data;
  --size;
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
  const std::string path = "/proc/self/fd/" + std::to_string(fd);

  {
    boxweave::H264Reader reader(block);
    if (reader.Open(path)) {
      boxweave::H264AccessUnit au;
      for (int i = 0; i < 100000 && reader.Next(au); ++i) {
      }
    }
  }
  {
    boxweave::H265Reader reader(block);
    if (reader.Open(path)) {
      boxweave::H265AccessUnit au;
      for (int i = 0; i < 100000 && reader.Next(au); ++i) {
      }
    }
    // The same bytes as one SPS, for the bit reader of the picture size.
    boxweave::H265Sps sps;
    std::string why;
    boxweave::ParseH265Sps(data, size, sps, why);
  }
  {
    boxweave::AdtsReader reader(block);
    if (reader.Open(path)) {
      boxweave::AdtsFrame frame;
      for (int i = 0; i < 100000 && reader.Next(frame); ++i) {
      }
    }
  }
  {
    boxweave::MjpegReader reader(block);
    if (reader.Open(path)) {
      boxweave::JpegPicture picture;
      for (int i = 0; i < 100000 && reader.Next(picture); ++i) {
      }
    }
  }
  {
    const boxweave::PcmFormat raw{8000, channels};
    for (const boxweave::PcmFormat* format : {static_cast<const boxweave::PcmFormat*>(nullptr), &raw}) {
      boxweave::PcmReader reader;
      if (!reader.Open(path, format)) continue;
      for (int i = 0; i < 100000; ++i) {
        kiv::stream::Packet* p = reader.NextPacket(nullptr);
        if (!p || p == kiv::stream::PacketError()) break;
        kiv::base::Release(p);
      }
    }
  }
  {
    boxweave::SrtReader reader;
    if (reader.Open(path)) {
      for (int i = 0; i < 100000; ++i) {
        kiv::stream::Packet* p = reader.NextPacket(nullptr);
        if (!p || p == kiv::stream::PacketError()) break;
        kiv::base::Release(p);
      }
    }
  }
  return 0;
}
