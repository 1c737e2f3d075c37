// libFuzzer target: any bytes as a movie file played through the demuxer element found by keywords:
// Open (the top-level walk, the box tree, the tracks), every packet of the run down a port into a sink
// that reads each byte, then a seek to a time the input picks and the run on from there to its end.
// The element's passes are made here, on the fuzzer's thread, one ProcessPacket at a time, as the
// element's own thread makes them. A fragmented file takes the element's fragmented engine; after
// the element, the fragment information object reads the same file for its length.
//
// The input's first byte picks the way the sample tables are read, the rest is the file:
//   bit 0     tables left on file (each table read through blocks over a second handle of its own)
//   bit 1     ... for every table (switch size 1), not only for those over the default 64 KiB
//   bits 2-3  the block size of those handles: 32768, 4096, 256 or 16 bytes
// The second handle opens the file by its name, so the file is a real one: an anonymous memory file
// reached through /proc/self/fd.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "stream/base/AttrSet.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/reflect/IClass.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IElement.h"
#include "stream/plugin/mp4/core/demux/IDemuxer.h"
#include "stream/plugin/mp4/core/demux/Mp4Demuxer.h"

namespace {

// Reads every byte it is given, so that a packet with bytes it does not own shows.
class Sink : public kiv::stream::ISink {
 public:
  bool ReceivePacket(kiv::stream::Packet& p, void*) override {
    const unsigned char* d = p.Data();
    for (int i = 0; d && i < p.Size(); ++i) sum += d[i];
    return true;
  }
  using ISink::ReceivePacket;
  unsigned sum = 0;
};

// A run's passes until its end; a bound keeps a file of very many samples from taking the fuzzer's time.
void Run(kiv::stream::IDemuxer& dmx) {
  for (int n = 0; n < (1 << 20) && !dmx.LoopEnd(); ++n) dmx.ProcessPacket();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool ready = [] {
    kiv::dbg::SetLevel(0);  // the plug-in's lines would drown the fuzzer's output
    kiv::ReflectRun();
    return true;
  }();
  (void)ready;

  if (size < 1) return 0;
  const unsigned mode = data[0];
  ++data;
  --size;
  // One file for the process, rewritten for each input.
  static const int fd = memfd_create("play_fuzz", MFD_CLOEXEC);
  if (fd < 0 || ftruncate(fd, 0) != 0) __builtin_trap();
  for (size_t done = 0; done < size;) {
    const ssize_t n = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
    if (n <= 0) __builtin_trap();
    done += static_cast<size_t>(n);
  }

  kiv::base::AttrSet ap;
  kiv::base::Object::AttrSetInit(ap, nullptr, "demuxer-mov");
  std::unique_ptr<kiv::stream::IDemuxer> dmx(kiv::base::Object::New<kiv::stream::IDemuxer>(ap));
  auto* mp4 = dynamic_cast<kiv::plugin::mov::Mp4Demuxer*>(dmx.get());
  if (!mp4) __builtin_trap();
  static const int kBlocks[] = {32768, 4096, 256, 16};
  mp4->TablesOnFile(mode & 1, (mode & 2) ? 1 : 0x10000, kBlocks[(mode >> 2) & 3]);
  static const std::string url = "/proc/self/fd/" + std::to_string(fd);
  dmx->setString("url", url.c_str());
  Sink sink;
  kiv::stream::IPort* video = dmx->CreatePortOut("video", 0);
  kiv::stream::IPort* audio = dmx->CreatePortOut("audio", 1);
  if (!video || !audio || !sink.LinkFrom(video) || !sink.LinkFrom(audio)) __builtin_trap();
  if (dmx->Open()) {
    Run(*dmx);
    // A seek clears the end of the run, as it does after "eos".
    const unsigned long long duration = dmx->Duration();
    const unsigned pick = size ? data[size - 1] : 0;
    dmx->Seek(static_cast<long long>(duration / 255 * pick));
    Run(*dmx);
  }
  dmx->Close();

  // The information object on the same file, made by class name and asked as a host asks it.
  kiv::base::AttrSet ai;
  kiv::base::Object::AttrSetInit(ai, nullptr, "FMp4Info-fmp4-info");
  std::unique_ptr<kiv::base::Object> info(kiv::base::Object::New<kiv::base::Object>(ai));
  unsigned long long ms = 0;
  if (!info || !info->setString("url", url.c_str())) __builtin_trap();
  info->Get("duration", ms);
  info->Get("duration", ms);  // the second answer comes from what the first one kept
  return 0;
}
