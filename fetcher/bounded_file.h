// A file for a download: made new in a folder that may be everybody's, and of bounded length.
#pragma once

#include <cstddef>
#include <cstdio>

namespace fetcher {

/// Makes a new file and opens it for writing, as an unbuffered stream that takes `limit` bytes.
///
/// What stands at `path` is removed first, be it a file, a link (not what it points to) or a fifo;
/// a folder stays, and the call fails. The file is then made exclusively: whatever appears at
/// `path` in between makes the call fail and is neither opened nor followed. Mode 0644, less the
/// process's mask.
///
/// A write that would go past the limit, or that the file system does not take, stores nothing more
/// and comes up short, at once: the stream keeps nothing back.
/// @return the stream, which the caller closes; null with errno set
std::FILE* createBoundedFile(const char* path, std::size_t limit);

}  // namespace fetcher
