#include "client/ctl/terminal/script_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "base/unique_fd.h"
#include "client/ctl/failure.h"

namespace client {

namespace {

constexpr std::size_t kChunkBytes = 64U << 10U;

[[noreturn]] void failToRead(const std::string& name, int error) {
  throw Failure(kNoInput,
                "cannot read " + shownName(name) + ": " + std::generic_category().message(error));
}

std::string readAll(int fd, const std::string& name) {
  std::string bytes;
  std::array<char, kChunkBytes> chunk{};
  for (;;) {
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) failToRead(name, errno);
    if (count == 0) return bytes;
    bytes.append(chunk.data(), static_cast<std::size_t>(count));
    if (bytes.size() > kMaxScriptBytes) {
      throw Failure(kRefused, shownName(name) +
                                  ": the script is longer than 512,000 bytes, the most that the "
                                  "daemon takes");
    }
  }
}

}  // namespace

std::string shownName(const std::string& name) {
  return name == "-" ? "standard input" : name;
}

std::string readScript(const std::string& name) {
  if (name == "-") return readAll(STDIN_FILENO, name);
  // Opening a fifo must not wait for somebody to write into it.
  const base::UniqueFd file(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) failToRead(name, errno);
  struct stat status {};
  if (fstat(file.get(), &status) != 0) failToRead(name, errno);
  if (!S_ISREG(status.st_mode)) {
    throw Failure(kNoInput, "cannot read " + name +
                                ": it is no regular file; for a pipe, give \"-\" and connect it to "
                                "standard input");
  }
  return readAll(file.get(), name);
}

}  // namespace client
