#include "sandbox/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <new>
#include <system_error>

#include "base/log_line.h"
#include "base/mutex.h"

namespace sandbox {

namespace {

using base::UniqueFd;

constexpr int kFirstPassed = 3;
// A killed process ends within this time, unless the machine is stuck or a debugger traces the
// process.
constexpr int kEndLimitMs = 1000;

struct FileActions {
  FileActions() { posix_spawn_file_actions_init(&actions); }
  ~FileActions() { posix_spawn_file_actions_destroy(&actions); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  posix_spawn_file_actions_t actions;
};

struct SpawnAttributes {
  SpawnAttributes() { posix_spawnattr_init(&attributes); }
  ~SpawnAttributes() { posix_spawnattr_destroy(&attributes); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  posix_spawnattr_t attributes;
};

/// Duplicates `descriptors` to numbers above those that the child gets, so that no dup2 overwrites
/// a descriptor that a later dup2 copies.
/// @return false, with errno, if there is no descriptor left
bool copyUp(const std::vector<int>& descriptors, std::vector<UniqueFd>& copies) {
  const int lowest = kFirstPassed + static_cast<int>(descriptors.size());
  for (const int descriptor : descriptors) {
    copies.emplace_back(fcntl(descriptor, F_DUPFD_CLOEXEC, lowest));
    if (!copies.back()) return false;
  }
  return true;
}

int setDescriptors(FileActions& files, const std::vector<UniqueFd>& passed) {
  int failed = 0;
  const auto step = [&failed](int result) { failed = failed != 0 ? failed : result; };
  step(posix_spawn_file_actions_addopen(&files.actions, 0, "/dev/null", O_RDONLY, 0));
  step(posix_spawn_file_actions_addopen(&files.actions, 1, "/dev/null", O_WRONLY, 0));
  step(posix_spawn_file_actions_addopen(&files.actions, 2, "/dev/null", O_WRONLY, 0));
  int target = kFirstPassed;
  for (const UniqueFd& source : passed) {
    step(posix_spawn_file_actions_adddup2(&files.actions, source.get(), target++));
  }
  step(posix_spawn_file_actions_addclosefrom_np(&files.actions, target));
  return failed;
}

bool isRealTime(int policy) {
  const int withoutFlag = policy & ~SCHED_RESET_ON_FORK;
  return withoutFlag == SCHED_FIFO || withoutFlag == SCHED_RR;
}

int setAttributes(SpawnAttributes& spawn) {
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&spawn.attributes, &all);
  posix_spawnattr_setsigmask(&spawn.attributes, &none);
  // The child gets its own process group, because the terminal's signals are for the program, not
  // for its child.
  posix_spawnattr_setpgroup(&spawn.attributes, 0);
  int flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP;
  // A child in an endless loop must not have the program's real-time priority. Policies with less
  // priority than the ordinary policy are kept, because a program needs a privilege to leave
  // SCHED_IDLE.
  if (isRealTime(sched_getscheduler(0))) {
    const sched_param ordinary{};
    posix_spawnattr_setschedpolicy(&spawn.attributes, SCHED_OTHER);
    posix_spawnattr_setschedparam(&spawn.attributes, &ordinary);
    flags |= POSIX_SPAWN_SETSCHEDULER;
  }
  return posix_spawnattr_setflags(&spawn.attributes, static_cast<short>(flags));
}

/// @return the process, or 0, with the errno of the failure in `error`
pid_t spawn(const ChildOptions& options, const std::vector<UniqueFd>& passed, int& error) {
  FileActions files;
  SpawnAttributes attributes;
  error = setDescriptors(files, passed);
  if (error == 0) error = setAttributes(attributes);
  if (error != 0) return 0;
  std::string name = std::filesystem::path(options.program).filename();
  char* const arguments[] = {name.data(), nullptr};
  std::vector<std::string> variables = options.environment;
  std::vector<char*> environment;
  for (std::string& variable : variables) environment.push_back(variable.data());
  environment.push_back(nullptr);
  pid_t pid = 0;
  error = posix_spawn(&pid, options.program.c_str(), &files.actions, &attributes.attributes,
                      arguments, environment.data());
  return error == 0 ? pid : 0;
}

UniqueFd openProcess(pid_t pid) {
  return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0U)));
}

/// Reaps the process if it has ended. @return false if it has not ended
bool waitUnlessItLives(const UniqueFd& process, siginfo_t& info) {
  info = {};
  return waitid(P_PIDFD, static_cast<id_t>(process.get()), &info, WEXITED | WNOHANG) != 0 ||
         info.si_pid != 0;
}

/// Killed processes that have not ended yet. Whenever a child is started or ended, this class reaps
/// (waitid) the killed processes that have ended by then. A process that is not reaped stays in the
/// process table until this process ends.
class UnreapedChildren {
 public:
  void add(UniqueFd process) {
    const Lock lock(mMutex);
    try {
      mProcesses.push_back(std::move(process));
    } catch (const std::bad_alloc&) {
      // The child stays in the process table, because a destructor must not throw.
    }
  }

  void waitForThoseThatHaveEnded() {
    const Lock lock(mMutex);
    siginfo_t info;
    std::erase_if(mProcesses,
                  [&info](const UniqueFd& process) { return waitUnlessItLives(process, info); });
  }

 private:
  Mutex mMutex;
  std::vector<UniqueFd> mProcesses PM_GUARDED_BY(mMutex);
};

/// Never destroyed: while the program ends, one of its threads may still end its child.
UnreapedChildren& unreaped() {
  static auto* const all = new UnreapedChildren;
  return *all;
}

std::string howItEnded(const siginfo_t& info) {
  const std::string value = std::to_string(info.si_status);
  return info.si_code == CLD_EXITED ? "exit " + value : "signal " + value;
}

std::string described(const std::string& what, int error) {
  return what + ": " + std::generic_category().message(error);
}

}  // namespace

std::string programInLibexec(const std::string& name, const char* installedPath) {
  namespace fs = std::filesystem;
  std::error_code error;
  // Only the folder is used. If the program's file has been replaced, its name here ends in "
  // (deleted)".
  const auto folder = fs::read_symlink("/proc/self/exe", error).parent_path();
  if (!error) {
    auto neighbour = folder.parent_path() / "libexec" / name;
    if (access(neighbour.c_str(), X_OK) == 0) return neighbour;
  }
  return installedPath;
}

ChildProcess::ChildProcess(pid_t pid, UniqueFd process) : mPid(pid), mProcess(std::move(process)) {}

ChildProcess::~ChildProcess() {
  end();
}

std::unique_ptr<ChildProcess> ChildProcess::start(const ChildOptions& options,
                                                  std::string& problem) {
  unreaped().waitForThoseThatHaveEnded();
  std::vector<UniqueFd> passed;
  if (!copyUp(options.descriptors, passed)) {
    problem = described("no descriptor for " + options.program, errno);
    return nullptr;
  }
  int error = 0;
  const pid_t pid = spawn(options, passed, error);
  if (pid == 0) {
    problem = described(options.program, error);
    return nullptr;
  }
  UniqueFd process = openProcess(pid);
  if (!process) {
    problem = described("no process descriptor for " + options.program, errno);
    // This call uses the child's process id. The child has not been reaped, so the id still belongs
    // to it. If this program has no right to signal a child of another user, it cannot wait for the
    // child's end either.
    if (kill(pid, SIGKILL) == 0) {
      while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
    return nullptr;
  }
  return std::unique_ptr<ChildProcess>(new ChildProcess(pid, std::move(process)));
}

bool ChildProcess::hasEnded() const {
  pollfd ended{mProcess.get(), POLLIN, 0};
  return mProcess && poll(&ended, 1, 0) != 0;
}

std::string ChildProcess::end() {
  if (!mProcess) return "ended";
  unreaped().waitForThoseThatHaveEnded();
  UniqueFd process = std::move(mProcess);
  // This call fails if the process has already ended. That is no problem.
  syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0U);
  pollfd entry{process.get(), POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&entry, 1, kEndLimitMs);
  } while (ready < 0 && errno == EINTR);
  siginfo_t info;
  mIsGone = waitUnlessItLives(process, info);
  if (mIsGone) {
    return info.si_pid != 0 ? howItEnded(info) : "waited for by the program";
  }
  unreaped().add(std::move(process));
  logLine(LOG_WARNING, "sandbox: process %d was killed and does not end", mPid);
  return "does not end";
}

}  // namespace sandbox
