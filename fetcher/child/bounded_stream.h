// The stream of limited length to which a transfer writes its body.
#pragma once

#include <cstddef>
#include <cstdio>

namespace fetch_child {

/// Opens an unbuffered stream that writes to `fd` and accepts `limit` bytes. If a write would pass
/// the limit, or if the file system refuses a write, the stream reports a short write at once and
/// stores nothing more.
/// @param fd the caller keeps it
/// @return the stream, which the caller closes; null with errno set
std::FILE* openBoundedStream(int fd, std::size_t limit);

}  // namespace fetch_child
