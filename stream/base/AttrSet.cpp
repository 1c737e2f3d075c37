#include "stream/base/AttrSet.h"

#include <cctype>
#include <cstring>

namespace kiv {
namespace base {
namespace {

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

bool needsQuotes(const std::string& v) {
  if (v.empty()) return false;
  if (std::isspace(static_cast<unsigned char>(v.front())) || std::isspace(static_cast<unsigned char>(v.back())))
    return true;
  return v.find_first_of(";\n\"\\") != std::string::npos;
}

std::string quote(const std::string& v) {
  std::string out = "\"";
  for (char c : v) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out + "\"";
}

}  // namespace

AttrSet::AttrSet(const char* text) { Parse(text); }

bool AttrSet::Parse(const char* text) {
  if (!text) return true;
  const std::string s = text;
  size_t i = 0;
  const size_t n = s.size();
  while (i < n) {
    // key up to '=' or an item separator
    size_t k = i;
    while (k < n && s[k] != '=' && s[k] != ';' && s[k] != '\n') ++k;
    std::string key = trim(s.substr(i, k - i));
    std::string value;
    i = k;
    if (i < n && s[i] == '=') {
      ++i;
      while (i < n && (s[i] == ' ' || s[i] == '\t')) ++i;
      if (i < n && s[i] == '"') {
        ++i;
        bool closed = false;
        for (; i < n; ++i) {
          if (s[i] == '\\' && i + 1 < n) {
            ++i;
            value += s[i] == 'n' ? '\n' : s[i];
          } else if (s[i] == '"') {
            closed = true;
            ++i;
            break;
          } else {
            value += s[i];
          }
        }
        if (!closed) return false;
        while (i < n && s[i] != ';' && s[i] != '\n') ++i;
      } else {
        size_t e = i;
        while (e < n && s[e] != ';' && s[e] != '\n') ++e;
        value = trim(s.substr(i, e - i));
        i = e;
      }
    }
    if (i < n) ++i;  // the separator
    if (!key.empty()) SetOrAdd(key.c_str(), value.c_str());
  }
  return true;
}

bool AttrSet::Add(const char* key, const char* value) {
  if (!key || !*key || Get(key)) return false;
  _items.emplace_back(key, value ? value : "");
  return true;
}

bool AttrSet::SetOrAdd(const char* key, const char* value) {
  if (!key || !*key) return false;
  for (auto& it : _items) {
    if (it.first == key) {
      it.second = value ? value : "";
      return true;
    }
  }
  _items.emplace_back(key, value ? value : "");
  return true;
}

const char* AttrSet::Get(const char* key) const {
  if (!key) return nullptr;
  for (const auto& it : _items)
    if (it.first == key) return it.second.c_str();
  return nullptr;
}

const char* AttrSet::GetOrDef(const char* key, const char* def) const {
  const char* v = Get(key);
  return v ? v : def;
}

bool AttrSet::Invalid(const char* key) {
  if (!key) return false;
  for (auto it = _items.begin(); it != _items.end(); ++it) {
    if (it->first == key) {
      _items.erase(it);
      return true;
    }
  }
  return false;
}

std::string AttrSet::ToString(bool multiline) const {
  std::string out;
  for (size_t i = 0; i < _items.size(); ++i) {
    if (i) out += multiline ? "\n" : ";";
    out += _items[i].first;
    if (!_items[i].second.empty())
      out += "=" + (needsQuotes(_items[i].second) ? quote(_items[i].second) : _items[i].second);
  }
  return out;
}

bool ConvertToImpl(const char* text, AttrSet& out) {
  if (!text) return false;
  AttrSet parsed;
  if (!parsed.Parse(text)) return false;
  out = parsed;
  return true;
}

bool ConvertToImpl(const AttrSet& v, std::string& out) {
  out = v.ToString(false);
  return true;
}

}  // namespace base
}  // namespace kiv
