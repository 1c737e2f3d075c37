// The sample list of a track while it records, and the temporary file that keeps the list bounded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace kiv {
namespace plugin {
namespace mov {

// One sample (or chunk) of a track as the muxer records it; the table boxes are derived from a list
// of these. The temporary file holds the records as their memory image, so the layout is fixed.
struct ChunkParam {
  uint64_t offset = 0;      // file position of a chunk; 0: this record closes no chunk
  uint32_t size = 0;        // bytes of the sample (sample frames for PCM)
  uint32_t duration = 0;    // in units of the track's time scale
  uint32_t count = 0;       // samples of the record, or of its chunk when the track groups samples
  uint16_t packetSpan = 0;  // the packet's second time span in track units, cut to 16 bits; kept only
  uint8_t descIndex = 0;    // sample description index, from 1
  uint8_t flags = 0;        // bit 0: sync sample; bit 1: a frame that nothing refers to
};

static_assert(sizeof(ChunkParam) == 24, "ChunkParam is the 24-byte record of the spill file");
static_assert(offsetof(ChunkParam, size) == 8 && offsetof(ChunkParam, duration) == 12 &&
                  offsetof(ChunkParam, count) == 16 && offsetof(ChunkParam, packetSpan) == 20 &&
                  offsetof(ChunkParam, descIndex) == 22 && offsetof(ChunkParam, flags) == 23,
              "the spill file layout");
static_assert(std::is_trivially_copyable<ChunkParam>::value, "records go to the file as bytes");

// Keeps a track's chunk list below its reserved capacity: when the list is about to fill, its records
// go to a temporary file and the list starts again from empty; at the end of the recording everything
// comes back, in the order of arrival. The file is made on the first spill only; its name is removed
// as soon as it is open, so it lasts as long as the object and never outlives the process. The list is
// not owned.
class IListFile {
 public:
  // path: the temporary file's name without its suffix (".quorel" is added). maxCount only sizes the
  // announcement of the file's largest spill.
  IListFile(std::vector<ChunkParam>* list, const char* path, unsigned int maxCount);
  virtual ~IListFile();
  IListFile(const IListFile&) = delete;
  IListFile& operator=(const IListFile&) = delete;

  bool CreateTmpFile(const char* path);
  // One free slot is kept: with a capacity of 4096 the list is full at 4095 records.
  bool ListIsFull();
  // Appends the list's records to the file and empties the list. False (list untouched) when the
  // file can't be made or the write falls short; the caller tries again with the next sample, over
  // what the short write left.
  bool WriteTmpFile();
  // Final: writes what is left in the list, then brings every record of the file back into the list,
  // ahead of any the file would not take. False when nothing was ever spilled (the list is complete
  // as it is).
  bool ReadTmpFile();

  const char* Path() const { return _path; }
  bool HasFile() const { return _file != nullptr; }

 private:
  // Appends the list to the file; after a short write the file stands where the write began.
  bool append();

  void* _file = nullptr;  // kiv::File handle
  unsigned _maxCount = 0;
  bool _unflushed = true;
  long long _fileBytes = 0;  // whole writes only: a torn one is written over or never read
  unsigned _recordSize = sizeof(ChunkParam);
  std::vector<ChunkParam>* _list = nullptr;
  char _path[128] = {};
};

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
