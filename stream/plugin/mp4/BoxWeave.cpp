// The module's one entry: a static initialiser that hands the registration function to the host.
#include "stream/plugin/mp4/BoxWeave.h"

extern "C" void RegisterBoxWeave() {
  // Strictly in the order of the class table; classes join as they are built. RegisterIFileDemuxer
  // is left to a host that wants the demuxer's own properties ("parse", "live") found by name.
  RegisterMovMuxer();
  RegisterMp4Muxer();
  RegisterFMp4Muxer();
  RegisterFMp4Info();
  RegisterMp4Demuxer();
  RegisterMovStreamH264();
  RegisterMovStreamHevc();
  RegisterMovStreamPcm();
  RegisterMovStreamJpeg();
  RegisterMovStreamAac();
  RegisterMovStreamTxt();
  RegisterMp4MuxerStreamH264Fragment();
  RegisterMp4MuxerStreamAacFragment();
  RegisterMp4MuxerStreamPcmFragment();
  RegisterMp4DemuxerStreamH264Fragment();
  RegisterMp4DemuxerStreamAacFragment();
  RegisterVideoTags();
  RegisterListParser();
  RegisterStblParser();
  RegisterIStblReader();
  RegisterCttsReader();
  RegisterStcoReader();
  RegisterCo64Reader();
  RegisterStscReader();
  RegisterStssReader();
  RegisterStszReader();
  RegisterSttsReader();
  RegisterFakeReader();
}

int __cb_register_BoxWeave = ReflectAdd(RegisterBoxWeave, 0, "BoxWeave", BOXWEAVE_BANNER);
