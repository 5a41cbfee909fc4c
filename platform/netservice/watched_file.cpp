#include "platform/netservice/watched_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace netservice {
namespace {

// The daemon takes no longer one.
constexpr std::size_t kLargestText = std::size_t{64} * 1024;
// O_NONBLOCK: opening a fifo returns at once.
constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK;
constexpr mode_t kReadableByAll = 0644;

int openOrMake(const char* path) {
  const int fd = ::open(path, kFlags);
  if (fd >= 0 || errno != ENOENT) return fd;
  // Exclusively: what somebody plants between the two calls is not taken.
  const int made = ::open(path, kFlags | O_CREAT | O_EXCL, kReadableByAll);
  if (made >= 0) fchmod(made, kReadableByAll);  // clients have all kinds of umasks
  return made;
}

}  // namespace

WatchedFile::~WatchedFile() {
  if (mFd >= 0) close(mFd);
}

int WatchedFile::open(const char* path) {
  mFd = openOrMake(path);
  if (mFd < 0) return errno;
  const int trouble = judge();
  return trouble != 0 ? trouble : readText();
}

int WatchedFile::judge() {
  struct stat status {};
  if (fstat(mFd, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  if (status.st_uid != 0 && status.st_uid != geteuid()) return EPERM;
  // A second name may be that of any file of root's.
  if (status.st_nlink > 1) return EMLINK;
  mSize = static_cast<std::size_t>(status.st_size);
  return 0;
}

int WatchedFile::readText() {
  mText.resize(std::min(mSize, kLargestText));
  std::size_t length = 0;
  while (length < mText.size()) {
    const ssize_t got =
        pread(mFd, mText.data() + length, mText.size() - length, static_cast<off_t>(length));
    if (got == 0) break;
    if (got < 0 && errno != EINTR) return errno;
    if (got > 0) length += static_cast<std::size_t>(got);
  }
  mText.resize(length);
  return 0;
}

int WatchedFile::replace(const std::string& text) {
  if (text == mText && mSize == text.size()) return 0;
  std::string covering = text;
  if (mText.size() > text.size()) covering.append(mText.size() - text.size(), '\n');
  std::size_t done = 0;
  while (done < covering.size()) {
    const ssize_t written =
        pwrite(mFd, covering.data() + done, covering.size() - done, static_cast<off_t>(done));
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) done += static_cast<std::size_t>(written);
  }
  if (mSize > text.size() && ftruncate(mFd, static_cast<off_t>(text.size())) != 0) return errno;
  mText = text;
  mSize = text.size();
  return 0;
}

}  // namespace netservice
