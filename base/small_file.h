// Reads small files safely, also in folders to which other users may write.
//
// In a folder such as /tmp, every user can create a link, a fifo or a file under a name that a
// program reads. So these functions check the open file, never the path. Nobody can exchange the
// file between the check and the read. Opening never blocks.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

#include "base/unique_fd.h"

namespace base {

/// The owners whose files are accepted.
enum class FileOwner {
  anybody,
  rootOrSelf,  ///< files of root, and files of the process's effective user
};

/// What a reader demands of a file. In addition, the file must always be regular.
struct FileDemands {
  std::size_t mostBytes = 0;  ///< a longer file is refused
  FileOwner owner = FileOwner::rootOrSelf;
  /// Whether a symbolic link at the end of the path is followed. Set this to true only for files in
  /// trusted folders. Links before the end of the path are followed in any case.
  bool followsLink = false;
  /// Whether a file with a second name (hard link) is accepted. In a shared folder, any user can
  /// make a second name for a file of root, unless the kernel forbids it (fs.protected_hardlinks).
  bool acceptsSecondName = false;
};

/// The demands for a file in a folder that only root writes to. Any owner, links and second names
/// are accepted; the length is still limited.
constexpr FileDemands inTrustedFolder(std::size_t mostBytes) {
  return {mostBytes, FileOwner::anybody, true, true};
}

enum class FileProblem {
  none,
  missing,     ///< nothing has this name
  link,        ///< a symbolic link at the path's end
  notRegular,  ///< a folder, fifo, device or socket
  otherOwner,
  secondName,  ///< more than one hard link
  tooLong,     ///< more than `mostBytes`
  failed,      ///< a system call failed
};

/// Why a file was refused or not read. Converts to true if there is a problem.
struct FileFailure {
  FileProblem problem = FileProblem::none;
  /// 0 if there is no problem. If a system call failed, its errno value. If the file was refused,
  /// the errno value that fits best: ELOOP, EINVAL (not regular), EPERM (owner), EMLINK, EFBIG.
  int error = 0;
  explicit operator bool() const { return problem != FileProblem::none; }
};

/// An open file that meets the demands.
struct OpenFile {
  UniqueFd fd;              ///< for reading, close-on-exec; none if there is a failure
  struct stat status = {};  ///< the opened file's status; all zero after a failure
  FileFailure failure;
};

/// The bytes of a file.
struct FileText {
  std::string text;  ///< empty if there is a failure
  FileFailure failure;
};

/// Checks an open file against `demands`: kind, owner, names, size.
/// @param status receives the result of fstat(), unless fstat() failed; may be null
/// Any thread. Does not throw.
FileFailure checkFile(int fd, const FileDemands& demands, struct stat* status = nullptr) noexcept;

/// Opens `path` for reading and checks it. Any thread. Does not throw.
OpenFile openFile(const char* path, const FileDemands& demands) noexcept;

/// Reads `fd` from its offset to its end. More than `mostBytes` bytes are FileProblem::tooLong. A
/// signal does not end the reading. If a read from the descriptor blocks, the function waits. Any
/// thread. Throws std::bad_alloc.
FileText readToEnd(int fd, std::size_t mostBytes);

/// Reads the whole file `path` with openFile() and readToEnd(). The file may grow during the call.
/// Any thread. Throws std::bad_alloc.
FileText readFile(const char* path, const FileDemands& demands);

}  // namespace base
