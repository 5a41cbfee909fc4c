#include "platform/netservice/watched_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "base/small_file.h"

namespace netservice {
namespace {

// The daemon refuses a longer file.
constexpr std::size_t kLargestText = std::size_t{64} * 1024;
// O_NONBLOCK: opening a fifo returns at once.
constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK;
// The length is not limited, because a file that is too long is replaced, too. A file with a second
// name (a hard link) is refused, because it could be any file of root.
constexpr base::FileDemands kDemands{.mostBytes = SIZE_MAX};
constexpr mode_t kReadableByAll = 0644;

int openOrMake(const char* path) {
  const int fd = ::open(path, kFlags);
  if (fd >= 0 || errno != ENOENT) return fd;
  // O_EXCL: if another user creates a file between the two calls, that file is not opened.
  const int made = ::open(path, kFlags | O_CREAT | O_EXCL, kReadableByAll);
  if (made >= 0) fchmod(made, kReadableByAll);  // DHCP clients have all kinds of umasks
  return made;
}

}  // namespace

int WatchedFile::open(const char* path) {
  mFile.reset(openOrMake(path));
  if (!mFile) return errno;
  struct stat status {};
  if (const auto failure = base::checkFile(mFile.get(), kDemands, &status)) return failure.error;
  mSize = static_cast<std::size_t>(status.st_size);
  auto [text, failure] = base::readToEnd(mFile.get(), kLargestText);
  if (failure && failure.problem != base::FileProblem::tooLong) return failure.error;
  mText = std::move(text);
  return 0;
}

int WatchedFile::replace(const std::string& text) {
  if (text == mText && mSize == text.size()) return 0;
  std::string covering = text;
  if (mText.size() > text.size()) covering.append(mText.size() - text.size(), '\n');
  std::size_t done = 0;
  while (done < covering.size()) {
    const ssize_t written = pwrite(mFile.get(), covering.data() + done, covering.size() - done,
                                   static_cast<off_t>(done));
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) done += static_cast<std::size_t>(written);
  }
  if (mSize > text.size() && ftruncate(mFile.get(), static_cast<off_t>(text.size())) != 0)
    return errno;
  mText = text;
  mSize = text.size();
  return 0;
}

}  // namespace netservice
