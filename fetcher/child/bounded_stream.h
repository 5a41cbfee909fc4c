// The stream that a transfer writes its body to: of bounded length.
#pragma once

#include <cstddef>
#include <cstdio>

namespace fetch_child {

/// Opens an unbuffered stream that writes to `fd` and takes `limit` bytes. A write that would go
/// past the limit, or that the file system does not take, stores nothing more and comes up short at
/// once: the stream keeps nothing back.
/// @param fd stays the caller's
/// @return the stream, which the caller closes; null with errno set
std::FILE* openBoundedStream(int fd, std::size_t limit);

}  // namespace fetch_child
