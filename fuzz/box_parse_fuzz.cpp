// libFuzzer target: any bytes as a movie file through the box parser. The first byte chooses the
// reader's attributes, so that the table-on-file and the fragment paths are reached too.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>

#include "stream/base/AttrSet.h"
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
  if (size < 1) return 0;
  const uint8_t pick = data[0];
  ++data;
  --size;

  kiv::base::AttrSet ap;
  if (pick & 0x01) {
    ap.SetOrAdd("stbl_extern_parser_enable", true);
    // Small thresholds put ordinary tables on the readers; the default keeps them in memory.
    static const long long kSwitch[] = {0, 16, 0x100, 0x10000};
    ap.SetOrAdd("stbl_extern_parser_switch_stbl_size", kSwitch[(pick >> 1) & 3]);
  }
  if (pick & 0x08) ap.SetOrAdd("stbl_extern_parser_keywords", (pick & 0x40) ? "list" : "extern");
  if (pick & 0x10) ap.SetOrAdd("frame_with_chunk", true);
  if (pick & 0x20) ap.SetOrAdd("codec_fcc", 0x31637661ull);  // a sample entry the file need not have

  kiv::base::IOBuffer io;
  io.Write(data, static_cast<long long>(size));
  io.Seek(0, kiv::Position::front);
  // The fragmented file's root stops at the first "moof" and reads the rest one fragment at a time.
  std::unique_ptr<kiv::plugin::mov::IBox> root(kiv::plugin::mov::IBox::New((pick & 0x80) ? "fmp4" : "root", 0));
  root->Parse(io, ap, true);
  std::ostringstream dump;
  root->Dump(dump);
  return 0;
}
