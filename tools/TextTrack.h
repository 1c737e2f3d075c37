// The text track of a movie file, read on the host's thread with the plug-in's own text track class.
// The demuxer element gives no text track: it looks a track's class up by the sample entry's code,
// and "text" names none (the class answers to "txt"), so the host reads that track itself.
#pragma once

#include <string>
#include <vector>

#include "tools/SrtReader.h"

namespace boxweave {

// The samples of the file's first text track, their 16-bit length cut off. "" on success; `found`
// tells whether the file has a text track at all.
std::string ReadTextTrack(const std::string& path, std::vector<TextSample>& samples, bool& found);

}  // namespace boxweave
