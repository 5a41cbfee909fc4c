#include "fetcher/child/bounded_stream.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace fetch_child {
namespace {

struct Target {
  int fd;
  std::size_t room;
};

// If the write fails, the stream expects the result 0, never a negative number.
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
  delete static_cast<Target*>(cookie);  // made in openBoundedStream, owned by the stream
  return 0;
}

}  // namespace

std::FILE* openBoundedStream(int fd, std::size_t limit) {
  auto target = std::make_unique<Target>(Target{fd, limit});
  std::FILE* stream = fopencookie(target.get(), "wb", {nullptr, writeTarget, nullptr, closeTarget});
  if (stream == nullptr) return nullptr;
  static_cast<void>(target.release());  // the stream now owns the target; closeTarget deletes it
  std::setvbuf(stream, nullptr, _IONBF, 0);
  return stream;
}

}  // namespace fetch_child
