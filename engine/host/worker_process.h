// The script worker as a child process: how it is found, started and ended.
//
// The worker is a sandbox::ChildProcess. Its environment contains at most TZ and the
// variables of engine/wire/descriptors.h. Its descriptor 3 is its
// end of a socket pair, and its descriptor 4 is the script. When the other end of the socket pair
// is closed, the worker ends.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "engine/pac_engine.h"
#include "engine/wire/channel.h"
#include "sandbox/child_process.h"

namespace pac_engine {

/// Copies `bytes` to a sealed memory file, which no process can change, grow or shrink. The result
/// is empty, with a reason in errno, if there is no memory or no descriptor.
UniqueFd sealedScript(std::string_view bytes);

/// The path of the program for `role`: `proxymanager-pac-worker` or `proxymanager-workbench` in the
/// libexec folder next to the folder of the running program. If that file is missing, the result is
/// the path at which the build installs it.
std::string workerProgram(WorkerRole role = WorkerRole::kAnswers);

class WorkerProcess {
 public:
  /// Starts `program` with `script`. If the zone of `options` is not empty, it is the value of TZ.
  /// @param problem receives the reason if the start fails
  /// @return the process, or null
  static std::unique_ptr<WorkerProcess> start(const std::string& program, const Options& options,
                                              const UniqueFd& script, std::string& problem);

  WorkerProcess(const WorkerProcess&) = delete;
  WorkerProcess& operator=(const WorkerProcess&) = delete;
  ~WorkerProcess();

  Channel& channel() { return mChannel; }
  pid_t pid() const { return mPid; }

  /// Binds the process to the CPU that the calling thread is on. The caller sleeps until it has the
  /// answer, so sharing one CPU costs nothing. Switching to a process on the same CPU takes a fifth
  /// of the time that waking another CPU takes. Busy waiting would waste power on both CPUs. If the
  /// kernel refuses the binding, nothing changes.
  void follow();

  /// Lets the kernel end the process with SIGXCPU after the process has used `more` CPU time from
  /// now on. If the kernel refuses this, nothing changes.
  void limitCpu(std::chrono::seconds more);

  /// Kills the process unless it has ended, and waits for its end, 1 s at most. If the process does
  /// not end, a later start or end of a child waits for this process.
  /// @return how it ended, for the log
  std::string end();

 private:
  WorkerProcess(pid_t pid, std::unique_ptr<sandbox::ChildProcess> child, UniqueFd socket);

  pid_t mPid;
  std::unique_ptr<sandbox::ChildProcess> mChild;
  int mCpu = -1;  ///< the CPU to which follow() has bound the process
  Channel mChannel;
};

}  // namespace pac_engine
