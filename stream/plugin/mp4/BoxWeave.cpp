// The module's one entry: a static initialiser that hands the registration function to the host.
#include "stream/plugin/mp4/BoxWeave.h"

extern "C" void RegisterBoxWeave() {
  // Strictly in the order of the class table; classes join as they are built.
  RegisterMovMuxer();
  RegisterMp4Muxer();
  RegisterMovStreamH264();
  RegisterMovStreamAac();
  RegisterVideoTags();
}

int __cb_register_BoxWeave = ReflectAdd(RegisterBoxWeave, 0, "BoxWeave", BOXWEAVE_BANNER);
