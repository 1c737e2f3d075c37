#include "stream/base/Convert.h"

#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace kiv {
namespace base {
namespace {

// Trims blanks; returns false for an empty result.
bool trimmed(const char* text, std::string& out) {
  if (!text) return false;
  const char* b = text;
  while (*b && std::isspace(static_cast<unsigned char>(*b))) ++b;
  const char* e = b + std::strlen(b);
  while (e > b && std::isspace(static_cast<unsigned char>(e[-1]))) --e;
  out.assign(b, e);
  return !out.empty();
}

bool parseSigned(const char* text, long long& out) {
  std::string s;
  if (!trimmed(text, s)) return false;
  const char* p = s.c_str();
  bool neg = false;
  if (*p == '-' || *p == '+') neg = (*p++ == '-');
  int base = 10;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    base = 16;
    p += 2;
  }
  if (!std::isxdigit(static_cast<unsigned char>(*p))) return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long mag = std::strtoull(p, &end, base);
  if (errno || *end) return false;
  if (neg) {
    if (mag > static_cast<unsigned long long>(LLONG_MAX) + 1ull) return false;
    out = mag == static_cast<unsigned long long>(LLONG_MAX) + 1ull ? LLONG_MIN : -static_cast<long long>(mag);
  } else {
    // Hexadecimal texts may carry the full 64-bit pattern.
    if (base == 10 && mag > static_cast<unsigned long long>(LLONG_MAX)) return false;
    out = static_cast<long long>(mag);
  }
  return true;
}

bool parseUnsigned(const char* text, unsigned long long& out) {
  std::string s;
  if (!trimmed(text, s)) return false;
  const char* p = s.c_str();
  if (*p == '+') ++p;
  int base = 10;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    base = 16;
    p += 2;
  }
  if (!std::isxdigit(static_cast<unsigned char>(*p))) return false;
  errno = 0;
  char* end = nullptr;
  out = std::strtoull(p, &end, base);
  return !errno && !*end;
}

template <class T>
bool toSigned(const char* text, T& out) {
  long long v;
  if (!parseSigned(text, v)) return false;
  if (v < static_cast<long long>(std::numeric_limits<T>::min()) ||
      v > static_cast<long long>(std::numeric_limits<T>::max())) {
    // A hexadecimal bit pattern of the type's own width is taken as is.
    unsigned long long u = static_cast<unsigned long long>(v);
    const unsigned long long widthMask = sizeof(T) < 8 ? (1ull << (8 * (sizeof(T) % 8))) - 1 : ~0ull;
    if (sizeof(T) < 8 && u <= widthMask && std::strstr(text, "0x")) {
      out = static_cast<T>(u);
      return true;
    }
    return false;
  }
  out = static_cast<T>(v);
  return true;
}

template <class T>
bool toUnsigned(const char* text, T& out) {
  unsigned long long v;
  if (!parseUnsigned(text, v)) {
    // "-1" for an unsigned value is the all-ones pattern, as in C.
    long long s;
    if (!parseSigned(text, s) || s != -1) return false;
    out = std::numeric_limits<T>::max();
    return true;
  }
  if (v > static_cast<unsigned long long>(std::numeric_limits<T>::max())) return false;
  out = static_cast<T>(v);
  return true;
}

template <class T>
bool toFloat(const char* text, T& out) {
  std::string s;
  if (!trimmed(text, s)) return false;
  errno = 0;
  char* end = nullptr;
  double d = std::strtod(s.c_str(), &end);
  if (errno || *end) return false;
  out = static_cast<T>(d);
  return true;
}

}  // namespace

long long MulDiv(long long value, long long mul, long long div) {
  if (div <= 0) return 0;
  // Split the value so that the partial products stay in range for the scales in use.
  const long long q = value / div, r = value % div;
  const long long part = r * mul;  // |r| < div
  const long long half = div / 2;
  return q * mul + (part >= 0 ? (part + half) / div : (part - half) / div);
}

bool Fraction::From(long long num, long long den) {
  if (den == 0) return false;
  if (den < 0) {
    num = -num;
    den = -den;
  }
  _num = num;
  _den = den;
  return true;
}

bool Fraction::From(const char* text) {
  std::string s;
  if (!trimmed(text, s)) return false;
  const size_t slash = s.find('/');
  if (slash != std::string::npos) {
    long long n, d;
    if (!parseSigned(s.substr(0, slash).c_str(), n) || !parseSigned(s.substr(slash + 1).c_str(), d)) return false;
    return From(n, d);
  }
  const size_t dot = s.find('.');
  if (dot == std::string::npos) {
    long long n;
    if (!parseSigned(s.c_str(), n)) return false;
    return From(n, 1);
  }
  // A decimal such as 29.97 becomes 2997/100.
  std::string digits = s.substr(0, dot) + s.substr(dot + 1);
  const size_t decimals = s.size() - dot - 1;
  if (decimals == 0 || decimals > 9) return false;
  long long n;
  if (!parseSigned(digits.c_str(), n)) return false;
  long long d = 1;
  for (size_t i = 0; i < decimals; ++i) d *= 10;
  return From(n, d);
}

std::string Fraction::ToString() const { return std::to_string(_num) + "/" + std::to_string(_den); }

long long TimeScale::To(long long value) const { return MulDiv(value, 1000000000LL, _scale); }
long long TimeScale::From(long long ns) const { return MulDiv(ns, _scale, 1000000000LL); }
long long TimeScale::ToMs(long long value) const { return MulDiv(value, 1000LL, _scale); }
long long TimeScale::FromMs(long long ms) const { return MulDiv(ms, _scale, 1000LL); }

bool ConvertToImpl(const char* text, bool& out) {
  std::string s;
  if (!trimmed(text, s)) return false;
  s = ToLower(s);
  if (s == "1" || s == "true" || s == "yes" || s == "on") {
    out = true;
    return true;
  }
  if (s == "0" || s == "false" || s == "no" || s == "off") {
    out = false;
    return true;
  }
  return false;
}

bool ConvertToImpl(const char* text, char& out) { return toSigned(text, out); }
bool ConvertToImpl(const char* text, signed char& out) { return toSigned(text, out); }
bool ConvertToImpl(const char* text, unsigned char& out) { return toUnsigned(text, out); }
bool ConvertToImpl(const char* text, short& out) { return toSigned(text, out); }
bool ConvertToImpl(const char* text, unsigned short& out) { return toUnsigned(text, out); }
bool ConvertToImpl(const char* text, int& out) { return toSigned(text, out); }
bool ConvertToImpl(const char* text, unsigned int& out) { return toUnsigned(text, out); }
bool ConvertToImpl(const char* text, long& out) { return toSigned(text, out); }
bool ConvertToImpl(const char* text, unsigned long& out) { return toUnsigned(text, out); }
bool ConvertToImpl(const char* text, long long& out) { return toSigned(text, out); }
bool ConvertToImpl(const char* text, unsigned long long& out) { return toUnsigned(text, out); }
bool ConvertToImpl(const char* text, float& out) { return toFloat(text, out); }
bool ConvertToImpl(const char* text, double& out) { return toFloat(text, out); }

bool ConvertToImpl(const char* text, std::string& out) {
  if (!text) return false;
  out = text;
  return true;
}

bool ConvertToImpl(const char* text, void*& out) {
  std::string s;
  if (!trimmed(text, s)) return false;
  if (s == "0" || s == "null" || s == "nullptr" || s == "(nil)") {
    out = nullptr;
    return true;
  }
  unsigned long long v;
  if (s.size() < 3 || s[0] != '0' || (s[1] != 'x' && s[1] != 'X') || !parseUnsigned(s.c_str(), v)) return false;
  out = reinterpret_cast<void*>(static_cast<uintptr_t>(v));
  return true;
}

bool ConvertToImpl(const char* text, Fraction& out) { return out.From(text); }

bool ConvertToImpl(bool v, std::string& out) {
  out = v ? "true" : "false";
  return true;
}
bool ConvertToImpl(char v, std::string& out) { return ConvertToImpl(static_cast<long long>(v), out); }
bool ConvertToImpl(signed char v, std::string& out) { return ConvertToImpl(static_cast<long long>(v), out); }
bool ConvertToImpl(unsigned char v, std::string& out) { return ConvertToImpl(static_cast<unsigned long long>(v), out); }
bool ConvertToImpl(short v, std::string& out) { return ConvertToImpl(static_cast<long long>(v), out); }
bool ConvertToImpl(unsigned short v, std::string& out) { return ConvertToImpl(static_cast<unsigned long long>(v), out); }
bool ConvertToImpl(int v, std::string& out) { return ConvertToImpl(static_cast<long long>(v), out); }
bool ConvertToImpl(unsigned int v, std::string& out) { return ConvertToImpl(static_cast<unsigned long long>(v), out); }
bool ConvertToImpl(long v, std::string& out) { return ConvertToImpl(static_cast<long long>(v), out); }
bool ConvertToImpl(unsigned long v, std::string& out) { return ConvertToImpl(static_cast<unsigned long long>(v), out); }
bool ConvertToImpl(long long v, std::string& out) {
  out = std::to_string(v);
  return true;
}
bool ConvertToImpl(unsigned long long v, std::string& out) {
  out = std::to_string(v);
  return true;
}
bool ConvertToImpl(float v, std::string& out) { return ConvertToImpl(static_cast<double>(v), out); }
bool ConvertToImpl(double v, std::string& out) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  out = buf;
  return true;
}
bool ConvertToImpl(const std::string& v, std::string& out) {
  out = v;
  return true;
}
bool ConvertToImpl(const void* v, std::string& out) {
  if (!v) {
    out = "0";
    return true;
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%" PRIxPTR, reinterpret_cast<uintptr_t>(v));
  out = buf;
  return true;
}
bool ConvertToImpl(const Fraction& v, std::string& out) {
  out = v.ToString();
  return true;
}

long long ConvertToNs(const char* text) {
  std::string s;
  if (!trimmed(text, s)) return -1;
  size_t unit = s.size();
  while (unit > 0 && std::isalpha(static_cast<unsigned char>(s[unit - 1]))) --unit;
  const std::string suffix = ToLower(s.substr(unit));
  const std::string number = s.substr(0, unit);
  long long mul;
  if (suffix.empty() || suffix == "ns") mul = 1;
  else if (suffix == "us") mul = 1000;
  else if (suffix == "ms") mul = 1000000;
  else if (suffix == "s") mul = 1000000000LL;
  else if (suffix == "min" || suffix == "m") mul = 60LL * 1000000000LL;
  else if (suffix == "h") mul = 3600LL * 1000000000LL;
  else return -1;
  long long whole;
  if (parseSigned(number.c_str(), whole)) {
    if (whole < 0 || (whole > 0 && whole > LLONG_MAX / mul)) return -1;
    return whole * mul;
  }
  double d;
  if (!toFloat(number.c_str(), d) || !(d >= 0) || d * static_cast<double>(mul) >= 9.2e18) return -1;
  return static_cast<long long>(std::llround(d * static_cast<double>(mul)));
}

Spliter::Spliter(const char* text, char separator, bool trim, bool skipEmpty) {
  if (!text) return;
  const char* p = text;
  for (;;) {
    const char* e = std::strchr(p, separator);
    std::string item = e ? std::string(p, e) : std::string(p);
    if (trim) {
      std::string t;
      trimmed(item.c_str(), t);
      item = t;
    }
    if (!(skipEmpty && item.empty())) _items.push_back(item);
    if (!e) break;
    p = e + 1;
  }
}

const char* const Hex::patternd[4] = {"%02" PRIx64, "%04" PRIx64, "%08" PRIx64, "%016" PRIx64};

std::ostream& operator<<(std::ostream& os, const Hex& h) {
  int idx = h.Width() <= 1 ? 0 : h.Width() <= 2 ? 1 : h.Width() <= 4 ? 2 : 3;
  char buf[24];
  std::snprintf(buf, sizeof buf, Hex::patternd[idx], h.Value());
  return os << "0x" << buf;
}

std::string Hex::Dump(const void* data, size_t size) {
  std::string out;
  const unsigned char* p = static_cast<const unsigned char*>(data);
  char buf[8];
  for (size_t i = 0; p && i < size; i += 16) {
    std::snprintf(buf, sizeof buf, "%04zx:", i & 0xffff);
    out += buf;
    for (size_t k = i; k < i + 16 && k < size; ++k) {
      std::snprintf(buf, sizeof buf, " %02x", p[k]);
      out += buf;
    }
    out += '\n';
  }
  return out;
}

std::string Printable(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (const unsigned char c : s) {
    if (c >= 0x20 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    }
  }
  return out;
}

std::string ToLower(const std::string& s) {
  std::string r = s;
  for (char& c : r)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return r;
}

}  // namespace base
}  // namespace kiv
