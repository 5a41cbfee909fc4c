#include "engine/host/file_change.h"

#include <sys/stat.h>

#include <utility>

namespace pac_engine {

FileChange::FileChange(std::string path) : mPath(std::move(path)) {}

bool FileChange::changedSinceLastLook() {
  const Identity now = look();
  const bool changed = mLooked && now != mLast;
  mLooked = true;
  mLast = now;
  return changed;
}

FileChange::Identity FileChange::look() const {
  struct stat file {};
  if (stat(mPath.c_str(), &file) != 0) return {};
  return {file.st_dev, file.st_ino, file.st_size, file.st_ctim.tv_sec, file.st_ctim.tv_nsec};
}

}  // namespace pac_engine
