// The file-type profile and the plug-in's registration.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>

#include "stream/base/Helpers.h"
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

uint32_t fcc(const char* t) {
  uint32_t v;
  kiv::Convert32(v, t);
  return v;
}

}  // namespace

TEST(PluginRegistration, ModuleEntryHandsOverTheBannerAndRegistersOnce) {
  bool found = false;
  for (const auto& e : kiv::ReflectEntries())
    found = found || (e.name == "BoxWeave" && e.banner == "boxweave@version:2.0.2.*.8ed0fe8" && e.done);
  EXPECT_TRUE(found);
  IClass* cls = IClass::Find("videoTags", true);
  ASSERT_NE(cls, nullptr);
  EXPECT_STREQ(cls->Module(), "boxweave");
  EXPECT_EQ(cls->Version(), 0x20002);
  EXPECT_STREQ(cls->Vendor(), "Quorelvan");
  const size_t before = IClass::Globle().size();
  RegisterBoxWeave();
  EXPECT_EQ(IClass::Globle().size(), before);
  EXPECT_EQ(IClass::Find("videoTags", true), cls);
}

TEST(VideoTags, PropertyListKeepsItsOrderAndTheDuplicate) {
  IClass* cls = IClass::Find("videoTags", true);
  ASSERT_NE(cls, nullptr);
  const auto& props = cls->Properties();
  ASSERT_EQ(props.size(), 54u);
  EXPECT_STREQ(props.front()->Name(), "major_brand");
  EXPECT_STREQ(props.back()->Name(), "ios_support_box_add");
  int dup = 0;
  for (size_t i = 0; i < props.size(); ++i) {
    if (std::strcmp(props[i]->Name(), "audio_chunk_first") != 0) continue;
    ++dup;
    if (dup == 2) {
      EXPECT_STREQ(props[i - 1]->Name(), "audio_mdhd_same_duration");
      EXPECT_STREQ(props[i + 1]->Name(), "moov_first");
    }
  }
  EXPECT_EQ(dup, 2);
  for (const char* none : {"video_has_edts", "uuid_present", "file_type"}) EXPECT_EQ(cls->Property(none), nullptr);
}

TEST(VideoTags, MovDefaultsAndTheMp4Flavour) {
  videoTags* t = newProfile();
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->vendor, fcc("quor"));
  EXPECT_EQ(t->datareftype, fcc("alis"));
  EXPECT_EQ(t->tkhd_flags, 15u);
  EXPECT_EQ(t->video_track_matrix[8], 0x40000000u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(t->compressorname)), "Quorel AVCC");
  EXPECT_EQ(std::string(reinterpret_cast<char*>(t->vidhandlerrefcomname)), "Quorel Alias Data Handler");
  EXPECT_EQ(t->vidhandlerrefcomnamelen, 32u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(t->audhandlerrefcomname)), "Quor Alias Data Handler");
  EXPECT_EQ(t->video_handler_type, fcc("mhlr"));

  t->uuid_present = 1;
  t->Mp4Flavour();
  EXPECT_EQ(t->major_brand, fcc("mp42"));
  EXPECT_EQ(t->datareftype, fcc("url "));
  EXPECT_EQ(t->tkhd_flags, 1u);
  EXPECT_EQ(t->video_track_lang_id, 21956);
  EXPECT_EQ(t->file_type, 0x9d7939c4u);
  EXPECT_EQ(t->uuid_present, 0);
  EXPECT_EQ(t->vidhandercomnamelen, 1u);
  EXPECT_EQ(t->vidhandercomname[0], 0);
  // Ten characters over the old name: the eleventh, a "C", stays behind them.
  EXPECT_EQ(std::string(reinterpret_cast<char*>(t->compressorname)), "AVC CodingC");
  EXPECT_EQ(t->compressorname, t->compressor_storage);
  delete t;
}

TEST(VideoTags, TagsAreSetByNameAndPrinted) {
  videoTags* t = newProfile();
  ASSERT_NE(t, nullptr);
  EXPECT_TRUE(t->setString("videosampleperchunk", "3"));
  EXPECT_TRUE(t->Set("audio_chunk_first", 1));
  EXPECT_TRUE(t->setString("ios_support_box_add", "true"));
  EXPECT_FALSE(t->setString("stbl_order", "300")) << "an unsigned 8-bit tag refuses 300";
  EXPECT_FALSE(t->setString("no_such_tag", "1"));
  EXPECT_EQ(t->videosampleperchunk, 3u);
  EXPECT_EQ(t->audio_chunk_first, 1);
  EXPECT_TRUE(t->ios_support_box_add);

  // A host's own compressor name leaves the storage alone.
  static unsigned char mine[32] = "Host Coder";
  EXPECT_TRUE(t->Set("compressorname", mine));
  EXPECT_EQ(t->compressorname, mine);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(t->compressor_storage)), "Quorel AVCC");

  std::ostringstream os;
  *t >> os;
  const std::string out = os.str();
  for (const char* label : {"major_brand: ", "component_manuf: quor", "data_ref_type: alis", "time_scale: 60000",
                            "video_sample_per_chunk: 3", "audio_chunk_first: 1", "uuid_present: 0",
                            "moov_first: 0", "no_freebox: 0", "no_udta: 0"})
    EXPECT_NE(out.find(label), std::string::npos) << label;
  EXPECT_NE(out.find("|0|I|kiv: stream/plugin/mp4/VideoTag/"), std::string::npos);
  delete t;
}
