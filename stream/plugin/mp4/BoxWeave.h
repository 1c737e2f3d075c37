// The plug-in's registration: one function a class, all run by RegisterBoxWeave in table order.
#pragma once

#include <utility>
#include <vector>

#include "stream/base/reflect/IClass.h"

#define BOXWEAVE_BANNER "boxweave@version:2.0.2.*.8ed0fe8"

namespace kiv {
namespace plugin {
namespace mov {

constexpr const char* kModule = "boxweave";
constexpr int kVersion = 0x20002;
constexpr const char* kVendor = "Quorelvan";

// Registers class C under a keyword name with the plug-in's module fields.
template <class C>
base::IClass* Reflect(const char* name, std::vector<base::IProperty*> properties, const char* author,
                      bool concrete = true) {
  return base::ReflectClass<C>(name, std::move(properties), concrete, kModule, kVersion, kVendor, author);
}

}  // namespace mov
}  // namespace plugin
}  // namespace kiv

extern "C" {
void RegisterBoxWeave();
void RegisterMovMuxer();
void RegisterMp4Muxer();
void RegisterFMp4Muxer();
void RegisterFMp4Info();
void RegisterMp4Demuxer();
void RegisterIFileDemuxer();
void RegisterMovStreamH264();
void RegisterMovStreamHevc();
void RegisterMovStreamPcm();
void RegisterMovStreamJpeg();
void RegisterMovStreamAac();
void RegisterMovStreamTxt();
void RegisterMp4MuxerStreamH264Fragment();
void RegisterMp4MuxerStreamAacFragment();
void RegisterMp4MuxerStreamPcmFragment();
void RegisterMp4DemuxerStreamH264Fragment();
void RegisterMp4DemuxerStreamAacFragment();
void RegisterVideoTags();
void RegisterListParser();
void RegisterStblParser();
void RegisterIStblReader();
void RegisterCttsReader();
void RegisterStcoReader();
void RegisterCo64Reader();
void RegisterStscReader();
void RegisterStssReader();
void RegisterStszReader();
void RegisterSttsReader();
void RegisterFakeReader();
}
