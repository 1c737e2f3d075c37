// Ordered key/value text pairs: the way attributes and pointers travel between objects.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "stream/base/Convert.h"

namespace kiv {
namespace base {

class AttrSet {
 public:
  AttrSet() = default;
  // "key=value;key2=\"a value; with separators\"" — items split at ';' or new lines; a word alone is a key
  // without a value.
  explicit AttrSet(const char* text);
  ~AttrSet() = default;
  AttrSet(const AttrSet&) = default;
  AttrSet& operator=(const AttrSet&) = default;

  // False for an empty key or a key that is there already.
  bool Add(const char* key, const char* value);
  bool Add(const char* key, const std::string& value) { return Add(key, value.c_str()); }
  bool SetOrAdd(const char* key, const char* value);
  bool SetOrAdd(const char* key, const std::string& value) { return SetOrAdd(key, value.c_str()); }
  const char* Get(const char* key) const;
  const char* GetOrDef(const char* key, const char* def) const;
  bool Invalid(const char* key);
  bool Has(const char* key) const { return Get(key) != nullptr; }

  size_t Size() const { return _items.size(); }
  const char* Key(size_t i) const { return i < _items.size() ? _items[i].first.c_str() : nullptr; }
  const char* Value(size_t i) const { return i < _items.size() ? _items[i].second.c_str() : nullptr; }
  void Clear() { _items.clear(); }
  // One line with ';' between items, or one item a line.
  std::string ToString(bool multiline = false) const;
  // Parses more items into this set; false when the text is malformed (an unclosed quote).
  bool Parse(const char* text);

  template <class T>
  bool Add(const char* key, const T& v) {
    std::string s;
    return ConvertToImpl(v, s) && Add(key, s.c_str());
  }
  template <class T>
  bool SetOrAdd(const char* key, const T& v) {
    std::string s;
    return ConvertToImpl(v, s) && SetOrAdd(key, s.c_str());
  }
  template <class T>
  bool Get(const char* key, T& out) const {
    const char* v = Get(key);
    return v && ConvertToImpl(v, out);
  }
  template <class T>
  T GetOrDef(const char* key, const T& def) const {
    T v;
    return Get(key, v) ? v : def;
  }

 private:
  std::vector<std::pair<std::string, std::string>> _items;
};

// Text form of an attribute set as a value of its own (a property that takes an AttrSet).
bool ConvertToImpl(const char* text, AttrSet& out);
bool ConvertToImpl(const AttrSet& v, std::string& out);

}  // namespace base
}  // namespace kiv
