// Description of one elementary stream: the codec word, free attributes and the codec's extra data.
//
// The object name is the codec word in lower case ("h264", "hevc", "aac", "pcm", "jpeg", "txt").
// Attributes are any keys, kept as text and read or written through the property interface with any
// type the text conversions know: `media->Get("width", w)`, `media->Set("bitrate", 5)`,
// `media->Set("sps", bytePointer)` (pointers travel as "0x..." text and come back as the same pointer).
// The key "codec" stands for the codec word itself.
//
// Reference counted: IMedia::New gives a count of 1; Hold to share, Release to drop. A port keeps one
// reference on the media it carries; a packet's media pointer is borrowed.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "stream/base/AttrSet.h"
#include "stream/base/reflect/Object.h"

namespace kiv {
namespace stream {

class IMedia : public kiv::base::Object, public kiv::base::Reference {
 public:
  // From one of the texts
  //   "h264"                          the codec word alone
  //   "video/h264"                    a kind and the codec word
  //   "codec=h264;width=640;..."      attributes; "codec" may be "video/h264" too
  //   "h264;width=640"                the first key without a value is the codec word
  // Null, with a log line, when the text names no codec or does not parse.
  static IMedia* New(const char* text);
  // "video", "audio", "text" for the codec words this host knows, "" for others.
  static const char* KindOf(const char* codec);

  const char* Codec() const { return Name(); }
  // The codec word is the media's name; the kind known for it follows a new one.
  void Name(const char* codec);
  using object_keywords::Name;
  // The kind given in the text, else the one known for the codec word.
  const char* Kind() const;
  bool IsVideo() const;
  bool IsAudio() const;
  bool IsText() const;
  // "video/h264", or the codec word alone when the kind is unknown: the caps a port shows for it.
  std::string Caps() const;
  // Text that New takes back: "codec=video/h264;width=640;...".
  std::string ToString() const;

  // Stores a copy of the codec's extra data (parameter sets, decoder configuration); size 0 clears.
  // False for null data with a size, a negative size, or a size beyond kMaxExtra.
  bool Extra(const void* data, int size);
  const unsigned char* Extra() const { return _extra.empty() ? nullptr : _extra.data(); }
  int ExtraSize() const { return static_cast<int>(_extra.size()); }
  static constexpr int kMaxExtra = 1 << 24;

  // A copy of the attributes.
  kiv::base::AttrSet Attrs() const;

  // The property interface over the attributes.
  void getPropertyNameList(std::vector<std::string>& names) override;
  bool hasProperty(const char* name) override;
  kiv::base::IProperty* getPropertyInfo(const char* name) override;
  bool set(const char* name, const void* value, const std::type_info& type) override;
  bool get(const char* name, void* value, const std::type_info& type) override;
  bool getString(const char* name, std::string& out) override;
  bool setString(const char* name, const char* value) override;
  bool setoradd(const char* name, const char* value) override { return setString(name, value); }

  std::ostream& operator>>(std::ostream& os) override;

 protected:
  IMedia(const char* codec, const char* kind);
  ~IMedia() override;

 private:
  mutable std::mutex _m;
  std::string _kind;
  const char* _codecKind = "";  // KindOf(Codec()), asked for every packet
  kiv::base::AttrSet _attrs;
  std::vector<unsigned char> _extra;
};

}  // namespace stream
}  // namespace kiv
