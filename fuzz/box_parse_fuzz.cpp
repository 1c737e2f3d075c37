// libFuzzer target: any bytes as a movie file through the box parser.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "stream/base/dbg/Log.h"
#include "stream/base/io/IO.h"
#include "stream/base/reflect/IClass.h"
#include "stream/plugin/mp4/common/IBox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = [] {
    kiv::dbg::SetLevel(0);  // parser lines would drown the fuzzer's output
    kiv::ReflectRun();
    return true;
  }();
  (void)ready;
  kiv::base::IOBuffer io;
  io.Write(data, static_cast<long long>(size));
  io.Seek(0, kiv::Position::front);
  std::unique_ptr<kiv::plugin::mov::IBox> root(kiv::plugin::mov::IBox::New("root", 0));
  kiv::base::AttrSet ap;
  root->Parse(io, ap, true);
  return 0;
}
