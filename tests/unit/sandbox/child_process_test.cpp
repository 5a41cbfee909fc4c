#include "sandbox/child_process.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"

namespace {

using namespace sandbox;
using base::UniqueFd;

/// A child that reports its state through descriptor 3, and runs until the other end of that
/// descriptor is closed.
struct Child {
  std::unique_ptr<ChildProcess> process;
  UniqueFd socket;
  std::string report;
};

Child startChild(std::vector<std::string> environment = {}) {
  Child child;
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  child.socket.reset(ends[0]);
  UniqueFd theirs(ends[1]);
  std::string problem;
  child.process =
      ChildProcess::start({CHILD_PROGRAM, {theirs.get()}, std::move(environment)}, problem);
  EXPECT_NE(child.process, nullptr) << problem;
  theirs.reset();
  char report[4096];
  const ssize_t length = recv(ends[0], report, sizeof report, 0);
  child.report.assign(report, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
  return child;
}

TEST(ChildProcess, GetsTheDescriptorsThatArePassedAndNoOther) {
  // These descriptors have no FD_CLOEXEC, and have the numbers of the child's own descriptors or
  // higher ones.
  ASSERT_GE(open("/dev/zero", O_RDONLY), 0);
  ASSERT_EQ(dup2(1, 200), 200);
  const Child child = startChild();
  EXPECT_THAT(child.report, testing::HasSubstr("descriptors 0 1 2 3\n"));
}

TEST(ChildProcess, GetsNoOtherEnvironmentThanTheCallers) {
  setenv("SECRET", "1", 1);
  EXPECT_THAT(startChild({"A=b", "C="}).report, testing::HasSubstr("environment A=b C=\n"));
  EXPECT_THAT(startChild().report, testing::HasSubstr("environment\n"));
}

TEST(ChildProcess, HasAProcessGroupOfItsOwn) {
  const Child child = startChild();
  EXPECT_EQ(getpgid(child.process->pid()), child.process->pid());
}

/// Runs `work` on a thread with another scheduling policy. The thread has no right to change the
/// policy back.
void withPolicy(int policy, int priority, const std::function<void()>& work) {
  bool changed = false;
  std::thread([&] {
    const sched_param parameters{priority};
    changed = sched_setscheduler(0, policy, &parameters) == 0;
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3]{};
    EXPECT_EQ(syscall(SYS_capset, &header, none), 0);
    if (changed) work();
  }).join();
  if (!changed) GTEST_SKIP() << "this machine gives no such policy";
}

TEST(ChildProcess, StartsForAnIdleProgramThatMayNotRaiseItsPolicy) {
  withPolicy(SCHED_IDLE, 0, [] {
    const Child child = startChild();
    ASSERT_NE(child.process, nullptr);
    EXPECT_EQ(sched_getscheduler(child.process->pid()), SCHED_IDLE);
  });
}

TEST(ChildProcess, HasNoRealTimePolicyOfItsProgram) {
  withPolicy(SCHED_FIFO, 1, [] {
    const Child child = startChild();
    ASSERT_NE(child.process, nullptr);
    EXPECT_EQ(sched_getscheduler(child.process->pid()), SCHED_OTHER);
  });
}

TEST(ChildProcess, IsKilledAndWaitedFor) {
  const Child child = startChild();
  const pid_t pid = child.process->pid();
  EXPECT_FALSE(child.process->hasEnded());
  EXPECT_FALSE(child.process->isGone());
  EXPECT_EQ(child.process->end(), "signal 9");
  EXPECT_TRUE(child.process->isGone());
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(child.process->end(), "ended");
}

TEST(ChildProcess, ThatEndsByItselfHasItsStatusReported) {
  Child child = startChild();
  child.socket.reset();
  siginfo_t info{};
  // Waits for the end of the child and does not reap it.
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child.process->pid()), &info, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(child.process->hasEnded());
  EXPECT_EQ(child.process->end(), "exit 7");
}

TEST(ChildProcess, IsNoneIfTheProgramIsMissing) {
  std::string problem;
  EXPECT_EQ(ChildProcess::start({"/nowhere/program", {}, {}}, problem), nullptr);
  EXPECT_EQ(problem, "/nowhere/program: No such file or directory");
}

TEST(ChildProcess, IsNoneIfADescriptorIsClosed) {
  std::string problem;
  EXPECT_EQ(ChildProcess::start({CHILD_PROGRAM, {999}, {}}, problem), nullptr);
  EXPECT_EQ(problem, std::string("no descriptor for ") + CHILD_PROGRAM + ": Bad file descriptor");
}

TEST(ProgramInLibexec, LiesBesideTheFolderOfTheProgramElseWhereTheBuildKnows) {
  namespace fs = std::filesystem;
  const auto own = fs::read_symlink("/proc/self/exe").parent_path();
  EXPECT_EQ(programInLibexec("proxymanager-pac-worker", "/else"),
            own.parent_path() / "libexec" / "proxymanager-pac-worker");
  EXPECT_EQ(programInLibexec("no-such-program", "/else"), "/else");
}

/// A process that traces others. The end of a traced process stays hidden from its parent until the
/// tracer has waited for it.
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

  /// @return whether the tracer may trace this process
  bool trace(pid_t pid) { return told(pid) == 0; }

  /// The tracer waits for the ends of all traced processes.
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

TEST(ChildProcess, ThatOutlivesItsKillingIsWaitedForByALaterOne) {
  Tracer tracer;
  std::vector<pid_t> outliving;
  for (int i = 0; i < 2; ++i) {
    const Child child = startChild();
    const pid_t pid = child.process->pid();
    outliving.push_back(pid);
    if (!tracer.trace(pid)) GTEST_SKIP() << "this machine lets nobody trace";
    EXPECT_EQ(child.process->end(), "does not end");
    EXPECT_FALSE(child.process->isGone());
    EXPECT_TRUE(logged(LOG_WARNING,
                       "sandbox: process " + std::to_string(pid) + " was killed and does not end"));
  }
  tracer.takeNotice();
  startChild().process->end();
  for (const pid_t pid : outliving) {
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << pid;
    EXPECT_EQ(errno, ECHILD);
  }
}

}  // namespace
