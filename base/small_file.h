// Careful reading of small files, in places where others may write.
//
// A folder such as /tmp lets every user plant a link, a fifo, a device or a file of their own under
// a name that a program reads. So what was opened is checked, never what the path names: nobody can
// swap the file in between. Opening never blocks.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

#include "base/unique_fd.h"

namespace base {

/// Whose files are accepted.
enum class FileOwner {
  anybody,
  rootOrSelf,  ///< root's, and those of the process's effective user
};

/// What a reader demands of a file. A regular file is always demanded.
struct FileDemands {
  std::size_t mostBytes = 0;  ///< a file with one byte more is refused
  FileOwner owner = FileOwner::rootOrSelf;
  /// A symbolic link at the path's end is followed. Only for files in folders that are trusted:
  /// links in the path before its end are always followed.
  bool followsLink = false;
  /// A file that has a second name (hard link) is accepted. In a shared folder any user can give a
  /// file of root's such a name, if the kernel does not forbid it (fs.protected_hardlinks).
  bool acceptsSecondName = false;
};

/// The demands of a reader whose file lies in a folder that only root writes to: anybody's file,
/// links and second names included. A length is still demanded.
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

/// Why a file was not accepted or read. Converts to true if there is a problem.
struct FileFailure {
  FileProblem problem = FileProblem::none;
  /// 0 without a problem; the errno value of the call that failed; of a refused file the value that
  /// fits best: ELOOP, EINVAL (not regular), EPERM (owner), EMLINK, EFBIG.
  int error = 0;
  explicit operator bool() const { return problem != FileProblem::none; }
};

/// A file that is open and meets the demands.
struct OpenFile {
  UniqueFd fd;              ///< for reading, close-on-exec; none if there is a failure
  struct stat status = {};  ///< of what was opened; all zero if there is a failure
  FileFailure failure;
};

/// The bytes of a file.
struct FileText {
  std::string text;  ///< empty if there is a failure
  FileFailure failure;
};

/// Checks an open file against `demands`: kind, owner, names, size.
/// @param status receives what fstat() returned, unless that failed; may be null
/// Any thread. Does not throw.
FileFailure checkFile(int fd, const FileDemands& demands, struct stat* status = nullptr) noexcept;

/// Opens `path` for reading and checks it. Any thread. Does not throw.
OpenFile openFile(const char* path, const FileDemands& demands) noexcept;

/// Reads `fd` from its offset to its end, `mostBytes` at most: one byte more is
/// FileProblem::tooLong. A signal does not end it. It waits for a descriptor that blocks. Any
/// thread. Throws std::bad_alloc.
FileText readToEnd(int fd, std::size_t mostBytes);

/// openFile() and readToEnd(): the whole file `path`, which may grow while it is read.
/// Any thread. Throws std::bad_alloc.
FileText readFile(const char* path, const FileDemands& demands);

}  // namespace base
