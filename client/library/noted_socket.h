// Knows the socket of a connection that somebody else opened and will close, for a process that
// comes by a copy of the descriptor through fork() and must not hold the connection up.
#pragma once

#include <sys/types.h>

#include <atomic>

namespace client::library {

class NotedSocket {
 public:
  /// Notes what `fd` is, a socket of this process. One thread notes and forgets.
  void note(int fd);
  void forget() { mFd = -1; }

  /// The descriptor that is noted, -1 where none is.
  int fd() const { return mFd; }

  /// Closes what is noted, in a copy of the process, where it still is what it was: a number that
  /// was closed there, or at the moment of the copying, may be another file's by now. Leaves it
  /// open in doubt.
  void closeCopy();

 private:
  std::atomic<int> mFd{-1};
  std::atomic<ino_t> mInode{0};  ///< which one socket has at a time
};

}  // namespace client::library
