// The file-type profile and the plug-in's registration.
#include <gtest/gtest.h>

#include <string>

#include "stream/base/reflect/IClass.h"
#include "stream/plugin/mp4/BoxWeave.h"
#include "stream/plugin/mp4/VideoTag.h"

using kiv::base::AttrSet;
using kiv::base::IClass;
using kiv::base::Object;
using kiv::plugin::mov::videoTags;

namespace {

videoTags* newProfile() {
  AttrSet ap;
  Object::AttrSetInit(ap, nullptr, "videoTags");
  return Object::New<videoTags>(ap);
}

}  // namespace

TEST(PluginRegistration, ModuleEntryHandsOverTheBannerAndRegistersOnce) {
  bool found = false;
  for (const auto& e : kiv::ReflectEntries())
    found = found || (e.name == "BoxWeave" && e.banner == "boxweave@version:2.0.2.*.8ed0fe8" && e.done);
  EXPECT_TRUE(found);
  IClass* cls = IClass::Find("videoTags", true);
  ASSERT_NE(cls, nullptr);
  const size_t before = IClass::Globle().size();
  RegisterBoxWeave();
  EXPECT_EQ(IClass::Globle().size(), before);
  EXPECT_EQ(IClass::Find("videoTags", true), cls);
}

// The defaults and the flavour's values show in the written boxes, which the track tests check; here
// what no box shows.
TEST(VideoTags, Mp4FlavourAndTagsSetByName) {
  videoTags* t = newProfile();
  ASSERT_NE(t, nullptr);
  auto text = [](const unsigned char* s) { return std::string(reinterpret_cast<const char*>(s)); };
  EXPECT_TRUE(t->setString("videosampleperchunk", "3"));
  EXPECT_TRUE(t->Set("audio_chunk_first", 1));
  EXPECT_TRUE(t->setString("ios_support_box_add", "true"));
  EXPECT_FALSE(t->setString("stbl_order", "300")) << "an unsigned 8-bit tag refuses 300";
  EXPECT_FALSE(t->setString("no_such_tag", "1"));
  EXPECT_TRUE(t->videosampleperchunk == 3u && t->audio_chunk_first == 1 && t->ios_support_box_add);

  t->Mp4Flavour();
  EXPECT_EQ(t->compressorname, t->compressor_storage);
  // Ten characters over the old name: the eleventh, a "C", stays behind them.
  EXPECT_EQ(text(t->compressorname), "AVC CodingC");
  // A host's own compressor name leaves the storage alone.
  static unsigned char mine[32] = "Host Coder";
  EXPECT_TRUE(t->Set("compressorname", mine));
  EXPECT_EQ(t->compressorname, mine);
  EXPECT_EQ(text(t->compressor_storage), "AVC CodingC");
  delete t;
}
