// Writes ftyp and an empty moov/mvhd into the file named by its argument.
#include "stream/base/io/IO.h"
#include "stream/plugin/mp4/common/Box.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  kiv::base::IO* io = kiv::base::IO::New(argv[1], "wb");
  if (!io) return 1;
  kiv::plugin::mov::croot root;
  root.Add(kiv::plugin::mov::IBox::New("ftyp"));
  kiv::plugin::mov::IBox* moov = root.Add(kiv::plugin::mov::IBox::New("moov"));
  moov->Add(kiv::plugin::mov::IBox::New("mvhd"));
  const long long written = root.Fill(*io);
  delete io;
  return written > 0 ? 0 : 1;
}
