// The file with the script that the daemon has fetched. Every user may read this file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace client {

/// The properties of the file with the script.
struct PacFile {
  std::uint64_t bytes = 0;
  std::int64_t fetched = 0;  ///< microseconds since 1970
  std::uint32_t owner = 0;   ///< user id
  std::string sha256;        ///< 64 hexadecimal digits; empty if there is no libcrypto
};

struct PacFileState {
  std::optional<PacFile> file;
  bool isThere = false;
  std::string problem;  ///< why there is no `file`
};

/// Reads the properties of the file `path`. Every user may write in its folder, so the function
/// follows no link and waits for no fifo. A file that is not regular, or is longer than the
/// daemon's limit, is a problem.
PacFileState lookAtPacFile(const char* path);

/// Whether the process `process` was running when `file` was fetched, so that it has fetched the
/// file. If not, an earlier daemon may have left the file; a daemon does not load such a file. But
/// if the clock was set after the fetch, the time of the file proves nothing.
bool isNewerThan(const PacFile& file, std::int64_t process);

}  // namespace client
