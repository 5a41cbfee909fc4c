// Writes a small file that another program watches, in a folder to which everybody may write.
//
// The daemon watches the files, not their folders. If a new file replaced one of them, the daemon
// would not watch the new file. So the files are written in place.
#pragma once

#include <cstddef>
#include <string>

#include "base/unique_fd.h"

namespace netservice {

/// A file that is open for writing in place.
class WatchedFile {
 public:
  /// Opens the file, makes it if there is none, and reads its contents. Never blocks, and never
  /// follows a link at the path's end. The checks use the open file, not the path.
  /// @return 0, or an errno value: ELOOP for a link, EINVAL if it is not a regular file, EPERM if
  ///         it belongs neither to root nor to the process's user, EMLINK if it has a second name,
  ///         else the errno of open, fstat or read
  int open(const char* path);

  /// The content of the file when it was opened; empty if it was longer than 64 KiB.
  const std::string& text() const { return mText; }

  /// Writes `text` into the file. Does nothing if the file already has this text. First the new
  /// text is written, then the file is cut to the new length, so no reader finds the file empty. If
  /// the old text is longer, blank lines overwrite its rest until the file is cut.
  /// @return 0, or the errno value of write or ftruncate
  int replace(const std::string& text);

 private:
  base::UniqueFd mFile;
  std::size_t mSize = 0;  // the file's size in bytes when it was opened
  std::string mText;
};

}  // namespace netservice
