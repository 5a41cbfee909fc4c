// Which of the processes that fork() makes of one this is.
#pragma once

#include <sys/types.h>

namespace client::library {

/// The pid alone does not tell: a child in a PID namespace of its own may have its parent's. The
/// count alone does not either: clone() can make a process past the C library.
struct ProcessIdentity {
  pid_t pid;
  unsigned copies;  ///< how often fork() has been called on the way here

  /// Of the calling process. Costs a system call.
  static ProcessIdentity current() noexcept;

  bool operator==(const ProcessIdentity&) const = default;
};

}  // namespace client::library
