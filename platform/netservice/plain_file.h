// Reading a small file that somebody else writes, from a place that may be everybody's.
#pragma once

#include <cstddef>
#include <string>

namespace netservice {

/// Whose files are taken.
enum class FileOwner {
  anybody,
  rootOrSelf,  ///< root's, and those of the process's effective user
};

/// Reads the whole of a regular file. A fifo or device there neither blocks nor is read. A link at
/// the path's end is followed only where the file may be anybody's: its folder is then trusted.
/// @param path  the file
/// @param limit most bytes that the file may have
/// @param owner whose file it has to be
/// @param text  receives the bytes; empty on failure
/// @return 0, or an errno value: ELOOP for a refused link, EINVAL for what is no regular file,
/// EPERM for
///         another owner's, EFBIG for more than `limit` bytes, else that of open or read
/// Any thread.
int readPlainFile(const char* path, std::size_t limit, FileOwner owner, std::string& text);

}  // namespace netservice
