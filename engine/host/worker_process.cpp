#include "engine/host/worker_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "base/annotations.h"
#include "base/log_line.h"
#include "engine/wire/descriptors.h"

namespace pac_engine {

namespace {

// Descriptors that are handed over lie above those they become, so that no dup2 overwrites another.
constexpr int kLowestSource = kWorkerScript + 1;
// A killed process is gone within it but where the machine stands still or somebody traces it.
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

/// The same file under a descriptor that no standard one and none of the worker's has.
UniqueFd movedUp(UniqueFd fd) {
  if (fd.get() >= kLowestSource) return fd;
  return UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, kLowestSource));
}

int setDescriptors(FileActions& files, int socket, int script) {
  int failed = 0;
  const auto step = [&failed](int result) { failed = failed != 0 ? failed : result; };
  step(posix_spawn_file_actions_addopen(&files.actions, 0, "/dev/null", O_RDONLY, 0));
  step(posix_spawn_file_actions_addopen(&files.actions, 1, "/dev/null", O_WRONLY, 0));
  step(posix_spawn_file_actions_addopen(&files.actions, 2, "/dev/null", O_WRONLY, 0));
  step(posix_spawn_file_actions_adddup2(&files.actions, socket, kWorkerSocket));
  step(posix_spawn_file_actions_adddup2(&files.actions, script, kWorkerScript));
  step(posix_spawn_file_actions_addclosefrom_np(&files.actions, kWorkerScript + 1));
  return failed;
}

int setAttributes(SpawnAttributes& spawn) {
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&spawn.attributes, &all);
  posix_spawnattr_setsigmask(&spawn.attributes, &none);
  // A process group of its own: the terminal's signals are for the program, not for its worker.
  posix_spawnattr_setpgroup(&spawn.attributes, 0);
  // A script that runs in circles must not do it with a real-time priority of the program's.
  const sched_param ordinary{};
  posix_spawnattr_setschedpolicy(&spawn.attributes, SCHED_OTHER);
  posix_spawnattr_setschedparam(&spawn.attributes, &ordinary);
  return posix_spawnattr_setflags(
      &spawn.attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP |
                             POSIX_SPAWN_SETSCHEDULER);
}

/// @return the process, or 0 with its errno in `error`
pid_t spawnWorker(const std::string& program, int socket, int script, const std::string& zone,
                  int& error) {
  FileActions files;
  SpawnAttributes spawn;
  error = setDescriptors(files, socket, script);
  if (error == 0) error = setAttributes(spawn);
  if (error != 0) return 0;
  std::string name = std::filesystem::path(program).filename();
  std::string zoneVariable = "TZ=" + zone;
  char* const arguments[] = {name.data(), nullptr};
  char* const environment[] = {zone.empty() ? nullptr : zoneVariable.data(), nullptr};
  pid_t pid = 0;
  error =
      posix_spawn(&pid, program.c_str(), &files.actions, &spawn.attributes, arguments, environment);
  return error == 0 ? pid : 0;
}

UniqueFd openProcess(pid_t pid) {
  return UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0U)));
}

/// Waits for the process unless it lives. @return false where it lives
bool waitUnlessItLives(const UniqueFd& process, siginfo_t& info) {
  info = {};
  return waitid(P_PIDFD, static_cast<id_t>(process.get()), &info, WEXITED | WNOHANG) != 0 ||
         info.si_pid != 0;
}

/// Processes that were killed and lived on. They are waited for when another one starts or ends, so
/// that they do not stay in the table of processes for as long as this one lives.
class GivenUp {
 public:
  /// Where it holds kMostGivenUp of them already the further one stays in that table.
  void add(UniqueFd process) {
    const Lock lock(mMutex);
    for (auto& place : mProcesses) {
      if (place) continue;
      place = std::move(process);
      return;
    }
  }

  void waitForThoseThatHaveEnded() {
    const Lock lock(mMutex);
    siginfo_t info;
    for (auto& process : mProcesses) {
      if (process && waitUnlessItLives(process, info)) process.reset();
    }
  }

 private:
  Mutex mMutex;
  std::array<UniqueFd, kMostGivenUp> mProcesses PM_GUARDED_BY(mMutex);
};

/// Never destroyed: a thread of a program that ends may still end its worker.
GivenUp& givenUp() {
  static auto* const all = new GivenUp;
  return *all;
}

std::string howItEnded(const siginfo_t& info) {
  const std::string value = std::to_string(info.si_status);
  return info.si_code == CLD_EXITED ? "exit " + value : "signal " + value;
}

}  // namespace

UniqueFd sealedScript(std::string_view bytes) {
  UniqueFd file(memfd_create("pac-script", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!file) return file;
  for (std::size_t written = 0; written < bytes.size();) {
    const ssize_t count = write(file.get(), bytes.data() + written, bytes.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return UniqueFd();
    written += static_cast<std::size_t>(count);
  }
  constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
  if (fcntl(file.get(), F_ADD_SEALS, kSeals) != 0) return UniqueFd();
  return movedUp(std::move(file));
}

std::string workerProgram() {
  namespace fs = std::filesystem;
  std::error_code error;
  // Only the folder counts: the name bears " (deleted)" once the program has been replaced.
  const auto folder = fs::read_symlink("/proc/self/exe", error).parent_path();
  if (!error) {
    auto neighbour = folder.parent_path() / "libexec" / "proxymanager-pac-worker";
    if (access(neighbour.c_str(), X_OK) == 0) return neighbour;
  }
  return PROXYMANAGER_WORKER_PATH;
}

WorkerProcess::WorkerProcess(pid_t pid, UniqueFd process, UniqueFd socket)
    : mPid(pid), mProcess(std::move(process)), mChannel(std::move(socket)) {}

WorkerProcess::~WorkerProcess() {
  end();
}

std::unique_ptr<WorkerProcess> WorkerProcess::start(const std::string& program,
                                                    const UniqueFd& script, const std::string& zone,
                                                    std::string& problem) {
  givenUp().waitForThoseThatHaveEnded();
  const auto fail = [&problem](const std::string& what, int error) {
    problem = what + ": " + std::generic_category().message(error);
    return nullptr;
  };
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    return fail("no socket pair", errno);
  }
  UniqueFd ours(ends[0]);
  const UniqueFd theirs = movedUp(UniqueFd(ends[1]));
  if (!theirs) return fail("no descriptor", errno);
  int error = 0;
  const pid_t pid = spawnWorker(program, theirs.get(), script.get(), zone, error);
  if (pid == 0) return fail(program, error);
  UniqueFd process = openProcess(pid);
  if (!process) {
    error = errno;
    ours.reset();  // a worker that may not be killed ends with its socket
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return fail("no process descriptor", error);
  }
  return std::unique_ptr<WorkerProcess>(
      new WorkerProcess(pid, std::move(process), std::move(ours)));
}

void WorkerProcess::follow() {
  const int cpu = sched_getcpu();
  if (cpu < 0 || cpu >= CPU_SETSIZE || cpu == mCpu) return;
  // Only while the number is the worker's own: one that has ended may be a stranger's by now.
  pollfd ended{mProcess.get(), POLLIN, 0};
  if (poll(&ended, 1, 0) != 0) return;
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(static_cast<std::size_t>(cpu), &only);
  if (sched_setaffinity(mPid, sizeof only, &only) == 0) mCpu = cpu;
}

std::string WorkerProcess::end() {
  if (!mProcess) return "ended";
  givenUp().waitForThoseThatHaveEnded();
  UniqueFd process = std::move(mProcess);
  // A service that may not signal other users' processes still ends a worker that listens.
  mChannel.hangUp();
  // Fails where the process has ended by itself, which is as good.
  syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0U);
  pollfd entry{process.get(), POLLIN, 0};
  int ready = 0;
  do {
    ready = poll(&entry, 1, kEndLimitMs);
  } while (ready < 0 && errno == EINTR);
  siginfo_t info;
  if (waitUnlessItLives(process, info)) {
    return info.si_pid != 0 ? howItEnded(info) : "waited for by the program";
  }
  givenUp().add(std::move(process));
  logLine(LOG_WARNING, "pac_engine: worker %d was killed and does not end", mPid);
  return "does not end";
}

}  // namespace pac_engine
