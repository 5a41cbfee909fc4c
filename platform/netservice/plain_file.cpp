#include "platform/netservice/plain_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace netservice {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int fd) : mFd(fd) {}
  ~Descriptor() {
    if (mFd >= 0) close(mFd);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return mFd; }

 private:
  int mFd;
};

// What was opened is judged, not what the path names: nobody can swap the file in between.
int judge(int fd, std::size_t limit, FileOwner owner) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  if (owner == FileOwner::rootOrSelf && status.st_uid != 0 && status.st_uid != geteuid()) {
    return EPERM;
  }
  return static_cast<std::size_t>(status.st_size) > limit ? EFBIG : 0;
}

// Reads one byte past the limit, for a file that grows or does not know its size.
int readAll(int fd, std::size_t limit, std::string& text) {
  std::string bytes(limit + 1, '\0');
  std::size_t length = 0;
  while (length < bytes.size()) {
    const ssize_t got = read(fd, bytes.data() + length, bytes.size() - length);
    if (got == 0) break;
    if (got > 0) {
      length += static_cast<std::size_t>(got);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  if (length > limit) return EFBIG;
  text.assign(bytes, 0, length);
  return 0;
}

}  // namespace

int readPlainFile(const char* path, std::size_t limit, FileOwner owner, std::string& text) {
  text.clear();
  const int links = owner == FileOwner::rootOrSelf ? O_NOFOLLOW : 0;
  // O_NONBLOCK: opening a fifo returns at once, with nobody at its other end.
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | links));
  if (file.get() < 0) return errno;
  const int trouble = judge(file.get(), limit, owner);
  return trouble != 0 ? trouble : readAll(file.get(), limit, text);
}

}  // namespace netservice
