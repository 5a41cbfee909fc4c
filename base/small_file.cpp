#include "base/small_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace base {
namespace {

constexpr std::size_t kChunkBytes = 4096;

FileFailure failed(int error) {
  return {FileProblem::failed, error};
}

}  // namespace

FileFailure checkFile(int fd, const FileDemands& demands, struct stat* status) noexcept {
  struct stat seen {};
  if (fstat(fd, &seen) != 0) return failed(errno);
  if (status != nullptr) *status = seen;
  if (!S_ISREG(seen.st_mode)) return {FileProblem::notRegular, EINVAL};
  if (demands.owner == FileOwner::rootOrSelf && seen.st_uid != 0 && seen.st_uid != geteuid()) {
    return {FileProblem::otherOwner, EPERM};
  }
  if (!demands.acceptsSecondName && seen.st_nlink > 1) return {FileProblem::secondName, EMLINK};
  if (static_cast<std::size_t>(seen.st_size) > demands.mostBytes) {
    return {FileProblem::tooLong, EFBIG};
  }
  return {};
}

OpenFile openFile(const char* path, const FileDemands& demands) noexcept {
  // O_NONBLOCK: open() of a fifo returns at once, even if no process has the other end open.
  const int link = demands.followsLink ? 0 : O_NOFOLLOW;
  OpenFile file;
  file.fd.reset(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | link));
  if (!file.fd) {
    const int error = errno;
    file.failure = failed(error);
    if (error == ENOENT) file.failure.problem = FileProblem::missing;
    // ELOOP can also mean that the path has too many links before its end. Such a path is refused,
    // too.
    if (error == ELOOP) file.failure.problem = FileProblem::link;
    return file;
  }
  file.failure = checkFile(file.fd.get(), demands, &file.status);
  if (file.failure) {
    file.fd.reset();
    file.status = {};
  }
  return file;
}

FileText readToEnd(int fd, std::size_t mostBytes) {
  FileText file;
  std::array<char, kChunkBytes> chunk{};
  for (;;) {
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count == 0) return file;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {{}, failed(errno)};
    // The size from fstat() is not reliable: the file may grow, and files of /proc report 0.
    const auto bytes = static_cast<std::size_t>(count);
    if (bytes > mostBytes - file.text.size()) return {{}, {FileProblem::tooLong, EFBIG}};
    file.text.append(chunk.data(), bytes);
  }
}

FileText readFile(const char* path, const FileDemands& demands) {
  const OpenFile file = openFile(path, demands);
  if (file.failure) return {{}, file.failure};
  return readToEnd(file.fd.get(), demands.mostBytes);
}

}  // namespace base
