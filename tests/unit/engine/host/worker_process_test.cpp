#include "engine/host/worker_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "engine/pac_engine.h"
#include "tests/support/log_capture.h"

namespace {

using namespace pac_engine;

TEST(SealedScript, CanBeReadAndNeverChanged) {
  const auto file = sealedScript("text");
  ASSERT_TRUE(file);
  char bytes[8] = {};
  EXPECT_EQ(pread(file.get(), bytes, sizeof bytes, 0), 4);
  EXPECT_STREQ(bytes, "text");
  EXPECT_EQ(fcntl(file.get(), F_GET_SEALS),
            F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
  EXPECT_EQ(pwrite(file.get(), "x", 1, 0), -1);
  EXPECT_EQ(ftruncate(file.get(), 0), -1);
  EXPECT_EQ(mmap(nullptr, 4, PROT_WRITE, MAP_SHARED, file.get(), 0), MAP_FAILED);
}

TEST(SealedScript, IsNotInheritedByOtherPrograms) {
  EXPECT_EQ(fcntl(sealedScript("").get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(WorkerProgram, LiesInTheLibexecFolderBesideThatOfTheProgram) {
  const auto own = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(workerProgram(),
            own.parent_path().parent_path() / "libexec" / "proxymanager-pac-worker");
}

TEST(WorkerProcess, StartsForAProgramWithoutStandardDescriptors) {
  close(STDIN_FILENO);
  Problem problem;
  const auto engine =
      Engine::load("function FindProxyForURL() { return 'DIRECT'; }", Options{}, problem);
  ASSERT_NE(engine, nullptr) << problem.message;
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "DIRECT");
}

TEST(WorkerProcess, IsOnTheCpuOfWhoAsks) {
  Problem problem;
  const auto engine =
      Engine::load("function FindProxyForURL() { return 'DIRECT'; }", Options{}, problem);
  ASSERT_NE(engine, nullptr) << problem.message;
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
  for (std::size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(cpu, &only);
    ASSERT_EQ(sched_setaffinity(0, sizeof only, &only), 0);
    ASSERT_TRUE(engine->evaluate("http://h/", "h").result);
    cpu_set_t worker;
    ASSERT_EQ(sched_getaffinity(engine->workerPid(), sizeof worker, &worker), 0);
    EXPECT_TRUE(CPU_EQUAL(&worker, &only)) << cpu;
  }
}

/// A process that traces others, from which their end is hidden until it has taken notice of it.
class Tracer {
 public:
  Tracer() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, mEnds), 0);
    mPid = fork();
    if (mPid == 0) run();
    close(mEnds[1]);
  }
  ~Tracer() {
    close(mEnds[0]);
    kill(mPid, SIGKILL);
    waitpid(mPid, nullptr, 0);
  }
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;

  /// @return whether it may
  bool trace(pid_t pid) { return told(pid) == 0; }

  /// Takes notice of the ends of all.
  void takeNotice() { told(0); }

 private:
  int told(pid_t pid) {
    int error = 0;
    EXPECT_EQ(send(mEnds[0], &pid, sizeof pid, 0), static_cast<ssize_t>(sizeof pid));
    EXPECT_EQ(recv(mEnds[0], &error, sizeof error, 0), static_cast<ssize_t>(sizeof error));
    return error;
  }

  [[noreturn]] void run() {
    close(mEnds[0]);
    std::vector<pid_t> traced;
    pid_t pid = 0;
    while (recv(mEnds[1], &pid, sizeof pid, 0) == static_cast<ssize_t>(sizeof pid)) {
      int error = 0;
      if (pid != 0) {
        error = ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) == 0 ? 0 : errno;
        traced.push_back(pid);
      } else {
        for (const pid_t each : traced) waitpid(each, nullptr, __WALL);
      }
      if (send(mEnds[1], &error, sizeof error, 0) < 0) break;
    }
    _exit(0);
  }

  int mEnds[2] = {-1, -1};
  pid_t mPid = -1;
};

TEST(WorkerProcess, ThatOutlivesItsKillingIsWaitedForByALaterOne) {
  Tracer tracer;
  std::string problem;
  const auto script = sealedScript("function FindProxyForURL() { return 'DIRECT'; }");
  const auto start = [&] { return WorkerProcess::start(workerProgram(), script, "", problem); };
  std::vector<pid_t> outliving;
  for (std::size_t i = 0; i <= kMostGivenUp; ++i) {
    const auto worker = start();
    ASSERT_NE(worker, nullptr) << problem;
    outliving.push_back(worker->pid());
    if (!tracer.trace(worker->pid())) GTEST_SKIP() << "this machine lets nobody trace";
    EXPECT_EQ(worker->end(), "does not end");
    EXPECT_TRUE(logged(LOG_WARNING, "pac_engine: worker " + std::to_string(worker->pid()) +
                                        " was killed and does not end"));
  }
  tracer.takeNotice();
  const auto last = start();
  ASSERT_NE(last, nullptr) << problem;
  last->end();
  // One too many stays for whoever waits for any child.
  EXPECT_EQ(waitpid(outliving.back(), nullptr, WNOHANG), outliving.back());
  for (const pid_t pid : outliving) {
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << pid;
    EXPECT_EQ(errno, ECHILD);
  }
}

}  // namespace
