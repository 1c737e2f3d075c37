// libFuzzer target: any bytes as a movie file played through the demuxer element found by keywords:
// Open (the top-level walk, the box tree, the tracks), every packet of the run down a port into a sink
// that reads each byte, then a seek to a time the input picks and the run on from there to its end.
// The element's passes are made here, on the fuzzer's thread, one ProcessPacket at a time, as the
// element's own thread makes them; the file comes from memory.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "stream/base/AttrSet.h"
#include "stream/base/dbg/Log.h"
#include "stream/base/io/IO.h"
#include "stream/base/reflect/IClass.h"
#include "stream/core/Packet.h"
#include "stream/core/fw/IElement.h"
#include "stream/plugin/mp4/core/demux/IDemuxer.h"

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

  kiv::base::AttrSet ap;
  kiv::base::Object::AttrSetInit(ap, nullptr, "demuxer-mov");
  std::unique_ptr<kiv::stream::IDemuxer> dmx(kiv::base::Object::New<kiv::stream::IDemuxer>(ap));
  if (!dmx) __builtin_trap();
  auto* io = new kiv::base::IOBuffer();
  io->Write(data, static_cast<long long>(size));
  io->Seek(0, kiv::Position::front);
  dmx->setString("url", "mem://fuzz");
  dmx->io = io;  // taken over: Open keeps a stream that is open already, Close destroys it
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
  return 0;
}
