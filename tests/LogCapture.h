// Collects the log lines written while it lives.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "stream/base/dbg/Log.h"

class LogCapture {
 public:
  explicit LogCapture(int level = kiv::dbg::I) : _saved(kiv::dbg::GetLevel()) {
    kiv::dbg::SetLevel(level);
    kiv::dbg::SetSink([this](int, const std::string& line) {
      std::lock_guard<std::mutex> lock(_m);
      _lines.push_back(line);
    });
  }
  ~LogCapture() {
    kiv::dbg::SetSink(nullptr);
    kiv::dbg::SetLevel(_saved);
  }
  bool Has(const std::string& part) const {
    std::lock_guard<std::mutex> lock(_m);
    for (const auto& l : _lines)
      if (l.find(part) != std::string::npos) return true;
    return false;
  }
  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> lock(_m);
    return _lines;
  }
  size_t Count(const std::string& part) const {
    std::lock_guard<std::mutex> lock(_m);
    size_t n = 0;
    for (const auto& l : _lines) n += l.find(part) != std::string::npos;
    return n;
  }

 private:
  mutable std::mutex _m;
  std::vector<std::string> _lines;
  int _saved;
};
