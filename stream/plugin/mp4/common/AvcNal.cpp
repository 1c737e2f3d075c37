#include "stream/plugin/mp4/common/AvcNal.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

#include "stream/base/dbg/Log.h"

namespace kiv {
namespace plugin {
namespace mov {

namespace {

inline void put32be(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

}  // namespace

int AvcSliceOffset(const unsigned char* data, int size) {
  if (!data) return 0;
  for (int i = 0; size - i >= 6; ++i)
    if (AvcIsStartCode(data + i) && AvcIsSlice(data[i + 4])) return i;
  return 0;
}

void AvcHeadToLengths(unsigned char* head, unsigned headLength, unsigned sampleSize) {
  if (!head || headLength == 0) return;
  unsigned char* const end = head + headLength;
  unsigned char* open = head;  // start of the unit whose length is not known yet
  bool seen = false;
  for (unsigned char* cur = head; end - cur >= 6; ++cur) {
    if (!AvcIsStartCode(cur)) continue;
    const unsigned char b = cur[4];
    if (AvcIsSlice(b)) {
      put32be(open, static_cast<uint32_t>(cur - open - 4));
      // The slice runs to the end of the sample; for a slice alone this replaces the write above.
      put32be(cur, static_cast<uint32_t>(sampleSize - 4 - static_cast<unsigned>(cur - head)));
      return;
    }
    const unsigned type = b & 31;
    if (seen && type >= 6 && type <= 9) {
      put32be(open, static_cast<uint32_t>(cur - open - 4));
      open = cur;
    }
    seen = true;
  }
}

long long WriteAvcHead(kiv::base::IO& io, const unsigned char* data, int size, unsigned char (&scratch)[256]) {
  const unsigned off = static_cast<unsigned>(AvcSliceOffset(data, size));
  const unsigned head = off + 4;
  const unsigned copy = off + 8;
  unsigned char* buffer = scratch;
  unsigned char* owned = nullptr;
  if (head > 252) {
    owned = new (std::nothrow) unsigned char[copy];
    if (!owned) {
      LOGE << "!buffer " << copy;
      return 0;
    }
    buffer = owned;
    std::memset(buffer, 0, copy);
  } else {
    std::memset(buffer, 0, sizeof scratch);
  }
  const unsigned have = size > 0 ? static_cast<unsigned>(size) : 0;
  const unsigned take = std::min(copy, have);
  if (take) std::memcpy(buffer, data, take);
  if (take < copy) LOGE << "sample of " << have << " bytes, head needs " << copy << ": missing bytes read as 0";
  AvcHeadToLengths(buffer, copy, have);
  io.Write(buffer, head);
  delete[] owned;
  return head;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
