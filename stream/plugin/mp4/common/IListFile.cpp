#include "stream/plugin/mp4/common/IListFile.h"

#include <cstdio>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/File.h"

namespace kiv {
namespace plugin {
namespace mov {

IListFile::IListFile(std::vector<ChunkParam>* list, const char* path, unsigned int maxCount)
    : _maxCount(maxCount), _list(list) {
  const int n = std::snprintf(_path, sizeof _path, "%s.quorel", path ? path : "");
  if (n < 0 || static_cast<size_t>(n) >= sizeof _path) LOGE << "path cut to " << sizeof _path - 1 << " bytes: " << _path;
  const unsigned long long maxBytes = static_cast<unsigned long long>(_recordSize) * _maxCount;
  LOGI << _path << " maxsize " << maxBytes;
  std::printf("%s maxsize %d\n", _path, static_cast<int>(maxBytes));
}

IListFile::~IListFile() {
  if (_file) kiv::File::Close(_file);
}

bool IListFile::CreateTmpFile(const char* path) {
  // Made without a name left behind: the records go with the object, or with the process.
  _file = kiv::File::Open(path, "wbt");
  return _file != nullptr;
}

bool IListFile::ListIsFull() {
  if (!_list) return false;
  return _list->size() + 1 >= _list->capacity();
}

bool IListFile::append() {
  const long long bytes = static_cast<long long>(_list->size()) * _recordSize;
  if (kiv::File::Write(_file, _list->data(), bytes) == bytes) {
    _fileBytes += bytes;
    return true;
  }
  kiv::File::Seek(_file, _fileBytes, kiv::Position::front);
  return false;
}

bool IListFile::WriteTmpFile() {
  if (!_list) return true;
  if (!_file && !CreateTmpFile(_path)) {
    LOGE;
    return false;
  }
  // One sequential write of the memory image; no per-record work.
  if (!append()) return false;
  _list->clear();  // the capacity stays: no allocation until the next spill
  return true;
}

bool IListFile::ReadTmpFile() {
  if (!_file) return false;
  if (!_list) return false;

  if (!_unflushed) return true;
  _unflushed = false;
  // Records the file would not take stay in memory, behind those that come back.
  std::vector<ChunkParam> rest;
  if (append())
    _list->clear();
  else
    rest.swap(*_list);
  kiv::File::Flush(_file);
  kiv::File::Seek(_file, 0, kiv::Position::front);
  const unsigned long long count = static_cast<unsigned long long>(_fileBytes) / _recordSize;
  if (count + rest.size() + 1 > _list->max_size()) {
    LOGE << "count+1>_list->max_size() " << count;
    return false;
  }
  // The extra slot keeps a list that comes back exactly full from counting as full at once.
  _list->reserve(static_cast<size_t>(count + rest.size() + 1));
  _list->resize(static_cast<size_t>(count));
  if (kiv::File::Read(_file, _list->data(), _fileBytes) != _fileBytes) LOGE << "!read " << _path;
  _list->insert(_list->end(), rest.begin(), rest.end());
  return true;
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
