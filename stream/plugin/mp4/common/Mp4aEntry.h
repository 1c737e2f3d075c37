// The sample entry of an AAC track: "mp4a" with its decoder description "esds", in one of two forms.
// A plain sound entry with "esds" right under it; or, in a QuickTime file with more than two
// channels, a version-2 entry with "esds" inside "wave" (with "frma", "mp4a" and "chan"). Shared by
// every track that writes AAC, whatever its base.
#pragma once

#include <cstdint>

namespace kiv {
namespace stream {
class IMedia;
}
namespace plugin {
namespace mov {

class cmp4a;
class videoTags;

// The file type of the QuickTime flavour (hash of "mov"), which picks the entry form.
constexpr uint32_t kQuickTimeFileType = 0xd19e5c79u;

// A new entry from the profile and the media's rate, channels, sample depth and bit rate; the
// decoder configuration is the media's extra data, referred to, not copied.
cmp4a* NewMp4aEntry(const videoTags& tags, kiv::stream::IMedia& media, int rate, int chn, int depth, int bitrate);

}  // namespace mov
}  // namespace plugin
}  // namespace kiv
