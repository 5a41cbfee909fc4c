#include "engine/host/worker_process.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <system_error>

#include "engine/wire/descriptors.h"

namespace pac_engine {

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
  return file;
}

std::string workerProgram(WorkerRole role) {
  if (role == WorkerRole::kAnswers) {
    return sandbox::programInLibexec("proxymanager-pac-worker", PROXYMANAGER_WORKER_PATH);
  }
  return sandbox::programInLibexec("proxymanager-workbench", PROXYMANAGER_WORKBENCH_PATH);
}

WorkerProcess::WorkerProcess(pid_t pid, std::unique_ptr<sandbox::ChildProcess> child,
                             UniqueFd socket)
    : mPid(pid), mChild(std::move(child)), mChannel(std::move(socket)) {}

WorkerProcess::~WorkerProcess() {
  end();
}

std::unique_ptr<WorkerProcess> WorkerProcess::start(const std::string& program,
                                                    const Options& options, const UniqueFd& script,
                                                    std::string& problem) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    problem = "no socket pair: " + std::generic_category().message(errno);
    return nullptr;
  }
  UniqueFd ours(ends[0]);
  const UniqueFd theirs(ends[1]);
  static_assert(kWorkerSocket == 3 && kWorkerScript == 4);
  sandbox::ChildOptions child{program, {theirs.get(), script.get()}, {}};
  if (!options.zone.empty()) child.environment.push_back("TZ=" + options.zone);
  if (options.role == WorkerRole::kParses) child.environment.emplace_back(kParseOnly);
  if (options.endsWithCaller) child.environment.emplace_back(kEndsWithCaller);
  auto process = sandbox::ChildProcess::start(child, problem);
  if (!process) return nullptr;
  const pid_t pid = process->pid();
  return std::unique_ptr<WorkerProcess>(
      new WorkerProcess(pid, std::move(process), std::move(ours)));
}

void WorkerProcess::follow() {
  const int cpu = sched_getcpu();
  if (cpu < 0 || cpu >= CPU_SETSIZE || cpu == mCpu) return;
  // If the process has ended, its id may belong to another process.
  if (mChild->hasEnded()) return;
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(static_cast<std::size_t>(cpu), &only);
  if (sched_setaffinity(mPid, sizeof only, &only) == 0) mCpu = cpu;
}

void WorkerProcess::limitCpu(std::chrono::seconds more) {
  // As above, the id may belong to another process.
  if (mChild->hasEnded()) return;
  clockid_t clock{};
  timespec used{};
  rlimit limit{};
  if (clock_getcpuclockid(mPid, &clock) != 0 || clock_gettime(clock, &used) != 0 ||
      prlimit(mPid, RLIMIT_CPU, nullptr, &limit) != 0) {
    return;
  }
  const auto total = std::chrono::seconds(used.tv_sec + 1) + more;
  limit.rlim_cur = std::min<rlim_t>(static_cast<rlim_t>(total.count()), limit.rlim_max);
  prlimit(mPid, RLIMIT_CPU, &limit, nullptr);
}

std::string WorkerProcess::end() {
  // This ends a worker that reads its socket, even if the service has no right to signal processes
  // of other users.
  mChannel.hangUp();
  return mChild->end();
}

}  // namespace pac_engine
