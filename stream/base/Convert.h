// Text conversions, rationals, time scales and small text tools of the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

namespace kiv {
namespace base {

// A rational of two signed 64-bit parts; a frame rate is one.
class Fraction {
 public:
  Fraction() = default;
  Fraction(long long num, long long den) : _num(num), _den(den) {}
  bool From(long long num, long long den);
  // "30000/1001", "25", "29.97".
  bool From(const char* text);
  std::string ToString() const;
  long long Num() const { return _num; }
  long long Den() const { return _den; }
  bool Valid() const { return _den != 0; }
  double ToDouble() const { return _den ? static_cast<double>(_num) / static_cast<double>(_den) : 0.0; }
  bool operator==(const Fraction& o) const { return _num == o._num && _den == o._den; }

 private:
  long long _num = 0;
  long long _den = 1;
};

// Units per second, with integer conversion to nanoseconds and milliseconds, rounded to nearest: a
// constant frame rate then gives the same duration for every frame (truncation made 1999/2000
// alternate at 30 fps in 1/60000 s).
class TimeScale {
 public:
  TimeScale() = default;
  explicit TimeScale(long long scale) : _scale(scale) {}
  void Scale(long long scale) { _scale = scale; }
  long long Scale() const { return _scale; }
  long long To(long long value) const;       // units -> nanoseconds
  long long From(long long ns) const;        // nanoseconds -> units
  long long ToMs(long long value) const;     // units -> milliseconds
  long long FromMs(long long ms) const;      // milliseconds -> units

 private:
  long long _scale = 1000;
};

// value * mul / div rounded to nearest (halves away from zero), without overflow of the intermediate
// product for |value| up to 2^63 as long as |mul| * div stays within 2^63. A div of 0 or less gives 0.
long long MulDiv(long long value, long long mul, long long div);

// Text to value; false when the text is not a complete value of the type.
bool ConvertToImpl(const char* text, bool& out);
bool ConvertToImpl(const char* text, char& out);
bool ConvertToImpl(const char* text, signed char& out);
bool ConvertToImpl(const char* text, unsigned char& out);
bool ConvertToImpl(const char* text, short& out);
bool ConvertToImpl(const char* text, unsigned short& out);
bool ConvertToImpl(const char* text, int& out);
bool ConvertToImpl(const char* text, unsigned int& out);
bool ConvertToImpl(const char* text, long& out);
bool ConvertToImpl(const char* text, unsigned long& out);
bool ConvertToImpl(const char* text, long long& out);
bool ConvertToImpl(const char* text, unsigned long long& out);
bool ConvertToImpl(const char* text, float& out);
bool ConvertToImpl(const char* text, double& out);
bool ConvertToImpl(const char* text, std::string& out);
bool ConvertToImpl(const char* text, void*& out);
bool ConvertToImpl(const char* text, Fraction& out);

// Value to text. Pointers travel as hexadecimal text ("0x..."; null is "0").
bool ConvertToImpl(bool v, std::string& out);
bool ConvertToImpl(char v, std::string& out);
bool ConvertToImpl(signed char v, std::string& out);
bool ConvertToImpl(unsigned char v, std::string& out);
bool ConvertToImpl(short v, std::string& out);
bool ConvertToImpl(unsigned short v, std::string& out);
bool ConvertToImpl(int v, std::string& out);
bool ConvertToImpl(unsigned int v, std::string& out);
bool ConvertToImpl(long v, std::string& out);
bool ConvertToImpl(unsigned long v, std::string& out);
bool ConvertToImpl(long long v, std::string& out);
bool ConvertToImpl(unsigned long long v, std::string& out);
bool ConvertToImpl(float v, std::string& out);
bool ConvertToImpl(double v, std::string& out);
bool ConvertToImpl(const std::string& v, std::string& out);
bool ConvertToImpl(const void* v, std::string& out);
bool ConvertToImpl(const Fraction& v, std::string& out);

// Any object pointer travels as a plain pointer.
template <class T>
bool ConvertToImpl(const char* text, T*& out) {
  void* p = nullptr;
  if (!ConvertToImpl(text, p)) return false;
  out = static_cast<T*>(p);
  return true;
}

// Does ConvertToImpl know the type both ways?
template <class T, class = void>
struct IsTextConvertible : std::false_type {};
template <class T>
struct IsTextConvertible<T, std::void_t<decltype(ConvertToImpl(static_cast<const char*>(nullptr), std::declval<T&>())),
                                        decltype(ConvertToImpl(std::declval<const T&>(), std::declval<std::string&>()))>>
    : std::true_type {};

// Nanoseconds from "500ms", "2s", "1.5s", "40000000" (a bare number is nanoseconds),
// with the units ns, us, ms, s, min, h. -1 for a text that is no duration.
long long ConvertToNs(const char* text);

// Splits a text at a separator.
class Spliter {
 public:
  Spliter(const char* text, char separator, bool trim = false, bool skipEmpty = false);
  size_t Items() const { return _items.size(); }
  const char* operator[](size_t i) const { return i < _items.size() ? _items[i].c_str() : nullptr; }
  const std::vector<std::string>& All() const { return _items; }

 private:
  std::vector<std::string> _items;
};

// A value printed in hexadecimal with "0x" and as many digits as its width in bytes asks.
class Hex {
 public:
  static const char* const patternd[4];  // widths 1, 2, 4, 8 bytes
  template <class T, class = std::enable_if_t<std::is_integral<T>::value || std::is_enum<T>::value>>
  explicit Hex(T v) : _value(static_cast<uint64_t>(v)), _width(sizeof(T)) {}
  Hex(uint64_t v, int width) : _value(v), _width(width) {}
  uint64_t Value() const { return _value; }
  int Width() const { return _width; }
  // Classic hex dump of a memory range, 16 bytes a line.
  static std::string Dump(const void* data, size_t size);

 private:
  uint64_t _value;
  int _width;
};
std::ostream& operator<<(std::ostream& os, const Hex& h);

// Lower-case copy of a text.
std::string ToLower(const std::string& s);

// A text safe to print on a terminal: every byte outside printable ASCII, and the backslash, as \xNN.
std::string Printable(const std::string& s);

}  // namespace base
}  // namespace kiv
