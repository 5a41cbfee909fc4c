#include "fetcher/bounded_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace fetcher {
namespace {

struct Target {
  int fd = -1;
  std::size_t room;

  explicit Target(std::size_t limit) : room(limit) {}
  ~Target() {
    if (fd >= 0) close(fd);
  }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;
};

// The stream's rule for a failed write is 0, never a negative number.
ssize_t writeTarget(void* cookie, const char* bytes, std::size_t length) {
  auto& target = *static_cast<Target*>(cookie);
  if (length > target.room) {
    errno = EFBIG;
    return 0;
  }
  std::size_t done = 0;
  while (done < length) {
    const ssize_t written = write(target.fd, bytes + done, length - done);
    if (written > 0) {
      done += static_cast<std::size_t>(written);
    } else if (written == 0 || errno != EINTR) {
      return 0;
    }
  }
  target.room -= length;
  return static_cast<ssize_t>(length);
}

int closeTarget(void* cookie) {
  delete static_cast<Target*>(cookie);  // made in createBoundedFile, held by the stream
  return 0;
}

}  // namespace

std::FILE* createBoundedFile(const char* path, std::size_t limit) {
  auto target = std::make_unique<Target>(limit);
  // unlink, as remove() would take an empty folder too. Whether it fails shows in the next step.
  unlink(path);
  target->fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (target->fd < 0) return nullptr;
  fchmod(target->fd, 0644);  // whatever mask the supervisor has set: the script is for all to read
  std::FILE* stream = fopencookie(target.get(), "wb", {nullptr, writeTarget, nullptr, closeTarget});
  if (stream == nullptr) return nullptr;
  static_cast<void>(target.release());  // the stream's from here on; closeTarget deletes it
  std::setvbuf(stream, nullptr, _IONBF, 0);
  return stream;
}

}  // namespace fetcher
