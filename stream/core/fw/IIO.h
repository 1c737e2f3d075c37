// Mix-in of an element that owns a byte stream opened from its "url" property.
#pragma once

#include <string>

#include "stream/base/io/IO.h"
#include "stream/base/reflect/Object.h"

namespace kiv {
namespace stream {

class IIO : public virtual kiv::base::Object {
 public:
  IIO() = default;
  IIO(const IIO&) = delete;
  IIO& operator=(const IIO&) = delete;
  // Closes a stream still open.
  ~IIO() override;

  // Opens `io` from `url` with an IO mode ("rb", "wb", ...). True when a stream is open already (it is
  // kept); false with a log line when there is no url or the stream cannot be opened.
  bool Open(const char* mode);
  // Closes and destroys the stream; true when there was none. False when the stream reports a failed
  // close (it is destroyed all the same).
  bool Close();
  // The stream's Error() as it was when it closed; cleared by Open. Its owner asks here once the stream is gone.
  const std::string& IOError() const { return _ioError; }
  // "io" gives the open stream.
  kiv::base::object* getChild(const char* name) override;

  // The property "url".
  std::string url;
  // The open stream, null when closed. `_io` names the same field.
  kiv::base::IO* io = nullptr;
  kiv::base::IO*& _io = io;

 private:
  std::string _ioError;
};

}  // namespace stream
}  // namespace kiv
