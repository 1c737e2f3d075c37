// Urls and paths of the host: the path of an url, and the drive letters ("d:/name") that the plug-in
// uses for its temporary files, mapped to directories that the host chooses.
#pragma once

#include <string>

namespace kiv {
namespace base {

class IUrl {
 public:
  // The path of an url: "file://" is stripped, a plain path is returned as it is.
  static std::string Path(std::string url);
  // True for urls of another scheme than a file ("mem://", "http://", ...).
  static bool IsOtherScheme(const std::string& url);
};

// Maps a drive letter (case does not matter) to a directory; a null or empty dir restores the default,
// the system temporary directory ($TMPDIR, else /tmp). False for a character that is not a letter.
bool DriveMap(char letter, const char* dir);
// The directory a drive letter stands for now.
std::string DriveDir(char letter);
// The file system path of a path or url: "file://" stripped, "x:/rest" moved into the directory of
// drive x. Other paths are returned unchanged.
std::string ResolvePath(const char* path);

}  // namespace base
}  // namespace kiv
