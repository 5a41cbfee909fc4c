// Writing a small file that another program watches, in a folder where everybody may write.
//
// The daemon watches the files, not their folders. It would not watch a file that replaces one of
// them, so the files are written in place.
#pragma once

#include <cstddef>
#include <string>

#include "base/unique_fd.h"

namespace netservice {

/// A file opened to be written in place.
class WatchedFile {
 public:
  /// Opens the file, makes it if there is none, and reads its contents. Never blocks, never follows
  /// a link at the path's end, and checks the open file, not the path.
  /// @return 0, or an errno value: ELOOP for a link, EINVAL if it is not a regular file, EPERM for
  ///         a file of another user than root and the process's, EMLINK for one with a second name,
  ///         else that of open, fstat or read
  int open(const char* path);

  /// The content of the file when it was opened; empty if it was longer than 64 KiB.
  const std::string& text() const { return mText; }

  /// Writes `text` into the file; touches nothing if the file holds it already. The new text
  /// is written first and the file then cut to its length, so no reader finds it empty; meanwhile
  /// blank lines cover what the old text has more.
  /// @return 0, or the errno value of write or ftruncate
  int replace(const std::string& text);

 private:
  base::UniqueFd mFile;
  std::size_t mSize = 0;  // bytes, when it was opened
  std::string mText;
};

}  // namespace netservice
