#include "stream/core/IMedia.h"

#include <cstring>
#include <strings.h>
#include <typeinfo>

#include "stream/base/Convert.h"
#include "stream/base/dbg/Log.h"

#if defined(__GNUC__)
#include <cxxabi.h>
#endif

namespace kiv {
namespace stream {

using kiv::base::AttrSet;

namespace {

struct KindRow {
  const char* codec;
  const char* kind;
};

const KindRow kKinds[] = {
    {"h264", "video"}, {"avc", "video"},   {"avc1", "video"},  {"hevc", "video"}, {"h265", "video"},
    {"hvc1", "video"}, {"hev1", "video"},  {"jpeg", "video"},  {"jpg", "video"},  {"mjpg", "video"},
    {"mjpeg", "video"}, {"mp4v", "video"}, {"mpeg4", "video"}, {"vp8", "video"},  {"vp9", "video"},
    {"av1", "video"},  {"yuv", "video"},   {"nv12", "video"},  {"aac", "audio"},  {"mp4a", "audio"},
    {"pcm", "audio"},  {"sowt", "audio"},  {"s16le", "audio"}, {"lpcm", "audio"}, {"alaw", "audio"},
    {"ulaw", "audio"}, {"pcma", "audio"},  {"pcmu", "audio"},  {"g711", "audio"}, {"g711a", "audio"},
    {"g711u", "audio"}, {"g726", "audio"}, {"adpcm", "audio"}, {"opus", "audio"}, {"mp3", "audio"},
    {"txt", "text"},   {"text", "text"},   {"tx3g", "text"},
};

// Is the type a pointer other than a character pointer (which the conversions treat as text)?
bool isDataPointer(const std::type_info& type) {
  if (type == typeid(char*) || type == typeid(const char*)) return false;
#if defined(__GNUC__)
  if (const auto* p = dynamic_cast<const abi::__pointer_type_info*>(&type))
    return !(p->__pointee && *p->__pointee == typeid(char));
  return false;
#else
  return type == typeid(void*) || type == typeid(const void*) || type == typeid(unsigned char*) ||
         type == typeid(const unsigned char*);
#endif
}

bool valueToText(const void* value, const std::type_info& type, std::string& out) {
  if (!value) return false;
  if (isDataPointer(type)) {
    const void* p = nullptr;
    std::memcpy(&p, value, sizeof p);
    return kiv::base::ConvertToImpl(p, out);
  }
  return kiv::base::AnyToText(value, type, out);
}

bool textToValue(const char* text, void* value, const std::type_info& type) {
  if (!text || !value) return false;
  if (type == typeid(std::string)) {
    *static_cast<std::string*>(value) = text;
    return true;
  }
  if (isDataPointer(type)) {
    void* p = nullptr;
    if (!kiv::base::ConvertToImpl(text, p)) return false;
    std::memcpy(value, &p, sizeof p);
    return true;
  }
  return kiv::base::TextToAny(text, value, type);
}

}  // namespace

const char* IMedia::KindOf(const char* codec) {
  if (!codec) return "";
  for (const auto& row : kKinds)
    if (::strcasecmp(codec, row.codec) == 0) return row.kind;
  return "";
}

IMedia* IMedia::New(const char* text) {
  AttrSet ap;
  if (!text || !ap.Parse(text)) {
    LOGE << "!ap.Parse(text) " << (text ? text : "null");
    return nullptr;
  }
  std::string codec;
  if (const char* c = ap.Get("codec")) {
    codec = c;
    ap.Invalid("codec");
  } else {
    for (size_t i = 0; i < ap.Size(); ++i) {
      if (!*ap.Value(i)) {
        codec = ap.Key(i);
        ap.Invalid(codec.c_str());
        break;
      }
    }
  }
  std::string kind;
  const size_t slash = codec.find('/');
  if (slash != std::string::npos) {
    kind = kiv::base::ToLower(codec.substr(0, slash));
    codec = codec.substr(slash + 1);
  }
  codec = kiv::base::ToLower(codec);
  if (codec.empty()) {
    LOGE << "!codec " << text;
    return nullptr;
  }
  auto* m = new IMedia(codec.c_str(), kind.c_str());
  m->_attrs = ap;
  return m;
}

IMedia::IMedia(const char* codec, const char* kind) : _kind(kind ? kind : "") { Name(codec); }

IMedia::~IMedia() = default;

void IMedia::Name(const char* codec) {
  object_keywords::Name(codec);
  _codecKind = KindOf(Codec());
}

const char* IMedia::Kind() const { return _kind.empty() ? _codecKind : _kind.c_str(); }
bool IMedia::IsVideo() const { return std::strcmp(Kind(), "video") == 0; }
bool IMedia::IsAudio() const { return std::strcmp(Kind(), "audio") == 0; }
bool IMedia::IsText() const { return std::strcmp(Kind(), "text") == 0; }

std::string IMedia::Caps() const {
  const char* kind = Kind();
  return *kind ? std::string(kind) + "/" + Codec() : std::string(Codec());
}

std::string IMedia::ToString() const {
  AttrSet ap;
  ap.Add("codec", Caps());
  std::lock_guard<std::mutex> lock(_m);
  for (size_t i = 0; i < _attrs.Size(); ++i) ap.SetOrAdd(_attrs.Key(i), _attrs.Value(i));
  return ap.ToString();
}

bool IMedia::Extra(const void* data, int size) {
  if (size < 0 || (!data && size > 0)) {
    LOGE << "!Extra(data, size) size=" << size;
    return false;
  }
  if (size > kMaxExtra) {
    LOGE << "size>kMaxExtra " << size;
    return false;
  }
  std::lock_guard<std::mutex> lock(_m);
  const auto* p = static_cast<const unsigned char*>(data);
  _extra.assign(p, p + size);
  return true;
}

AttrSet IMedia::Attrs() const {
  std::lock_guard<std::mutex> lock(_m);
  return _attrs;
}

void IMedia::getPropertyNameList(std::vector<std::string>& names) {
  names.emplace_back("codec");
  std::lock_guard<std::mutex> lock(_m);
  for (size_t i = 0; i < _attrs.Size(); ++i) names.emplace_back(_attrs.Key(i));
}

bool IMedia::hasProperty(const char* name) {
  if (!name) return false;
  if (std::strcmp(name, "codec") == 0) return true;
  std::lock_guard<std::mutex> lock(_m);
  return _attrs.Has(name);
}

kiv::base::IProperty* IMedia::getPropertyInfo(const char*) { return nullptr; }

bool IMedia::set(const char* name, const void* value, const std::type_info& type) {
  // The codec word names the media; it is fixed when the media is made.
  if (!name || !*name || std::strcmp(name, "codec") == 0) return false;
  std::string text;
  if (!valueToText(value, type, text)) return false;
  std::lock_guard<std::mutex> lock(_m);
  return _attrs.SetOrAdd(name, text.c_str());
}

bool IMedia::get(const char* name, void* value, const std::type_info& type) {
  if (!name) return false;
  if (std::strcmp(name, "codec") == 0) return textToValue(Codec(), value, type);
  std::string text;
  {
    std::lock_guard<std::mutex> lock(_m);
    const char* v = _attrs.Get(name);
    if (!v) return false;
    text = v;
  }
  return textToValue(text.c_str(), value, type);
}

bool IMedia::getString(const char* name, std::string& out) { return get(name, &out, typeid(std::string)); }

bool IMedia::setString(const char* name, const char* value) {
  if (!value) return false;
  return set(name, &value, typeid(const char*));
}

std::ostream& IMedia::operator>>(std::ostream& os) {
  os << "media{" << ToString() << ",extra=" << ExtraSize() << "}";
  return os;
}

}  // namespace stream
}  // namespace kiv
