// The script that the daemon has fetched, as it lies on disk: anybody may read it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace client {

/// What is known of that file.
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

/// Looks at the file `path`. It stands where every user may put something, so nothing is followed
/// or waited for: what is no regular file, or longer than the daemon takes, is a problem.
PacFileState lookAtPacFile(const char* path);

}  // namespace client
