// Notices that a file of the device's configuration is another one than before.
#pragma once

#include <string>

namespace pac_engine {

/// One file, looked at by its path with one system call; links are followed. Not for use by two
/// threads at once.
class FileChange {
 public:
  explicit FileChange(std::string path);

  /// Whether the file has been replaced, written, made or removed since the last call, as its
  /// device, inode, size and time of change tell (the last cannot be set back, as a copy that keeps
  /// its times does with the time of modification). The first call returns false.
  bool changedSinceLastLook();

 private:
  struct Identity {
    unsigned long long device = 0;  ///< all zero for a file that is not there
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
