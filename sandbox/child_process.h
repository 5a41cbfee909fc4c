// A child process that parses foreign data: how its program is found, started and ended.
//
// The child is started by posix_spawn, which is safe in a program with threads. It gets default
// signals, an empty signal mask, no real-time scheduling policy, its own process group, and the
// environment that the caller passes. Its three standard descriptors are on /dev/null. In addition,
// it gets the descriptors that the caller passes, and no others. The parent kills the child and
// waits for it through a descriptor of the process (pidfd). A SIGCHLD handler of the program, or a
// thread that waits for any child, may already have reaped the child. Even then, the parent never
// kills a wrong process.
//
// The child puts restrictions on itself (walls.h) before it reads the first byte of the foreign
// data.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace sandbox {

/// The path of a program that is installed with this one: `name` in the libexec folder next to the
/// folder of the running program. If the program is not there, the result is `installedPath`, which
/// the build sets.
std::string programInLibexec(const std::string& name, const char* installedPath);

/// The arguments for the start of a child process.
struct ChildOptions {
  std::string program;  ///< path of the program's file
  std::vector<int>
      descriptors;  ///< become the child's descriptors 3, 4, ...; the caller keeps its own
  std::vector<std::string> environment;  ///< the child's whole environment, as NAME=value
};

class ChildProcess {
 public:
  /// Starts a child process. Any thread.
  /// @param problem receives the reason, with the program's path, if the start fails
  /// @return the child, or null
  static std::unique_ptr<ChildProcess> start(const ChildOptions& options, std::string& problem);

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  /// Ends the child.
  ~ChildProcess();

  pid_t pid() const { return mPid; }

  /// @return whether the child has ended; false also after end()
  bool hasEnded() const;

  /// Kills the child unless it has ended, and waits for its end for at most 1 s. There are three
  /// reasons why a child does not end: it is in a system call that cannot be interrupted; a
  /// debugger has stopped it; or this process is root without CAP_KILL, and has no right to kill
  /// the child. The log then gets a warning, and the next start or end of a child waits for that
  /// child again.
  /// @return how the child ended, for the log: "exit 0", "signal 9", "does not end", or "ended" if
  ///         this function ran before
  std::string end();

  /// @return whether end() has seen the child's end. If not, the child may still run, and may use
  ///         everything that was passed to it
  bool isGone() const { return mIsGone; }

 private:
  ChildProcess(pid_t pid, base::UniqueFd process);

  pid_t mPid;
  base::UniqueFd mProcess;  ///< empty after end()
  bool mIsGone = false;
};

}  // namespace sandbox
