// Notices that a file of the device's configuration has changed.
#pragma once

#include <string>

namespace pac_engine {

/// One file. Each check is one system call, which follows links. Two threads must not use the
/// object at the same time.
class FileChange {
 public:
  explicit FileChange(std::string path);

  /// Whether the file has been replaced, written, created or removed since the last call. The
  /// function compares device, inode, size and time of change (ctime). It does not compare the
  /// mtime, because a copy may keep an old mtime. No program can set the ctime back. The first call
  /// returns false.
  bool changedSinceLastLook();

 private:
  struct Identity {
    unsigned long long device = 0;  ///< all fields are 0 if the file does not exist
    unsigned long long inode = 0;
    long long size = 0;
    long long seconds = 0;
    long nanoseconds = 0;
    bool operator==(const Identity&) const = default;
  };
  Identity look() const;

  std::string mPath;
  bool mLooked = false;
  Identity mLast;
};

}  // namespace pac_engine
