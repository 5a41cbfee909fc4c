// Tests each restriction of the worker's sandbox from inside: the worker's engine makes the system
// call. Also checks the kernel's report about a running worker.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "engine/pac_engine.h"
#include "tests/support/log_capture.h"

namespace {

using namespace pac_engine;

/// The two signals that the C library uses for its threads. They are ignored, and posix_spawn does
/// not change this.
constexpr char kIgnored[] = "0000000180000000";

/// The reason for a skipped test: only root may read the descriptors and the environment of a
/// worker.
constexpr char kOnlyRootLooks[] = "only root may look";

std::unique_ptr<Engine> load(const std::string& script, Problem& problem, bool walls) {
  Options options;
  options.timeLimit = std::chrono::seconds(60);  // the question ends at once
  if (walls) options.workerProgram = WALLS_WORKER;
  return Engine::load(script, options, problem);
}

class Walls : public ::testing::TestWithParam<std::string> {};

TEST_P(Walls, EndTheWorkerAndNothingElse) {
  Problem problem;
  const auto engine = load("ready", problem, true);
  ASSERT_NE(engine, nullptr) << problem.message;
  const auto pid = engine->workerPid();
  EXPECT_EQ(engine->evaluate("http://h/", GetParam()).problem.message,
            "the script worker ended without an answer");
  EXPECT_TRUE(logged(LOG_WARNING, "pac_engine: worker " + std::to_string(pid) +
                                      " ended without an answer (signal " + std::to_string(SIGSYS) +
                                      ")"));
  EXPECT_EQ(engine->evaluate("http://h/", "url").result, "http://h/");
}

TEST_P(Walls, StandBeforeTheScriptIsRead) {
  Problem problem;
  EXPECT_EQ(load(GetParam(), problem, true), nullptr);
  EXPECT_EQ(problem.message, "the script worker ended without an answer");
}

INSTANTIATE_TEST_SUITE_P(Worker, Walls,
                         ::testing::Values("open", "socket", "fork", "vfork", "exec", "ptrace",
                                           "kill_parent", "read", "write_stderr", "send_elsewhere",
                                           "executable_memory", "mapped_file", "shared_memory",
                                           "memory_at_a_place", "change_protection",
                                           "move_memory_to_a_place", "advise_otherwise",
                                           "own_cpu_time", "cpu_time_of_others", "boot_time",
                                           "peek", "send_out_of_band", "setuid", "unshare"),
                         [](const auto& test) { return test.param; });

TEST(Worker, GetsNoMemoryBeyondItsShare) {
  Problem problem;
  const auto engine = load("ready", problem, true);
  ASSERT_NE(engine, nullptr) << problem.message;
  EXPECT_EQ(engine->evaluate("http://h/", "memory").result, "refused");
}

/// The CPU time that a process has used. It can be read until the parent has reaped the process.
std::chrono::milliseconds cpuTimeOf(pid_t pid) {
  clockid_t clock{};
  timespec time{};
  if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0) return {};
  return std::chrono::seconds(time.tv_sec) + std::chrono::milliseconds(time.tv_nsec / 1'000'000);
}

bool hasEnded(pid_t pid) {
  siginfo_t info{};
  return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid != 0;
}

TEST(Worker, MaySpendCpuTimeWhileItIsAsked) {
  Problem problem;
  const auto engine = load(
      "function FindProxyForURL() { const end = Date.now() + 400;"
      "while (Date.now() < end) ; return 'DIRECT'; }",
      problem, false);
  ASSERT_NE(engine, nullptr) << problem.message;
  const auto pid = engine->workerPid();
  // In total, this is more CPU time than an idle worker may use.
  for (int i = 0; i < 9; ++i) ASSERT_EQ(engine->evaluate("http://h/", "h").result, "DIRECT") << i;
  EXPECT_EQ(engine->workerPid(), pid);
}

class LiveWorker : public ::testing::Test {
 protected:
  void SetUp() override {
    Problem problem;
    mEngine = load("function FindProxyForURL() { return 'DIRECT'; }", problem, false);
    ASSERT_NE(mEngine, nullptr) << problem.message;
  }

  std::string path(const std::string& name) const {
    return "/proc/" + std::to_string(mEngine->workerPid()) + "/" + name;
  }

  /// The value of one line of /proc/PID/status, without blanks around it.
  std::string status(const std::string& name) const {
    std::ifstream file(path("status"));
    for (std::string line; std::getline(file, line);) {
      if (line.rfind(name + ":", 0) != 0) continue;
      line.erase(0, name.size() + 1);
      line.erase(0, line.find_first_not_of(" \t"));
      return line.substr(0, line.find_last_not_of(" \t") + 1);
    }
    return "no such line";
  }

  std::unique_ptr<Engine> mEngine;
};

TEST_F(LiveWorker, IsFilteredAndGetsNoNewPrivileges) {
  EXPECT_EQ(status("Seccomp"), "2");
  EXPECT_EQ(status("NoNewPrivs"), "1");
  EXPECT_EQ(status("Threads"), "1");
}

TEST_F(LiveWorker, IsNotRoot) {
  for (const char* name : {"Uid", "Gid"}) {
    std::istringstream ids(status(name));
    for (unsigned id = 0; ids >> id;) EXPECT_NE(id, 0U) << name;
  }
  if (getuid() == 0) {
    EXPECT_EQ(status("Groups"), "");
  }
}

TEST_F(LiveWorker, HasNoCapability) {
  for (const char* set : {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"}) {
    EXPECT_EQ(status(set), "0000000000000000") << set;
  }
}

TEST_F(LiveWorker, HasOneDescriptorBeyondTheStandardThree) {
  if (getuid() != 0) GTEST_SKIP() << kOnlyRootLooks;
  int beyond = 0;
  for (const auto& entry : std::filesystem::directory_iterator(path("fd"))) {
    const auto number = std::stoi(entry.path().filename());
    const auto target = std::filesystem::read_symlink(entry.path()).string();
    if (number <= 2) {
      EXPECT_EQ(target, "/dev/null") << number;
    } else {
      ++beyond;
      EXPECT_EQ(target.rfind("socket:", 0), 0U) << target;
    }
  }
  EXPECT_EQ(beyond, 1);
}

TEST_F(LiveWorker, HasTheLimitsOfTheSandbox) {
  std::ifstream file(path("limits"));
  const std::string limits{std::istreambuf_iterator<char>(file), {}};
  for (const auto& [name, value] :
       std::map<std::string, std::string>{{"Max address space", "268435456"},  // 256 MiB
                                          {"Max file size", "0"},
                                          {"Max core file size", "0"},
                                          {"Max processes", "0"},
                                          {"Max open files", "0"},
                                          {"Max locked memory", "0"}}) {
    EXPECT_THAT(limits, testing::ContainsRegex(name + " +" + value + " +" + value + " ")) << name;
  }
}

TEST_F(LiveWorker, HasNoSignalBlockedOrIgnored) {
  EXPECT_EQ(status("SigBlk"), "0000000000000000");
  EXPECT_EQ(status("SigIgn"), kIgnored);
  EXPECT_EQ(status("SigCgt"), "0000000000000000");
}

TEST(WorkerOfABusyProgram, InheritsNeitherSignalsNorDescriptors) {
  if (getuid() != 0) GTEST_SKIP() << kOnlyRootLooks;
  signal(SIGPIPE, SIG_IGN);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
  // These descriptors have no FD_CLOEXEC, and have the numbers of the worker's own descriptors.
  ASSERT_GE(open("/dev/zero", O_RDONLY), 0);
  ASSERT_EQ(dup2(1, 200), 200);
  Problem problem;
  const auto engine = load("function FindProxyForURL() { return 'DIRECT'; }", problem, false);
  ASSERT_NE(engine, nullptr) << problem.message;
  const auto folder = "/proc/" + std::to_string(engine->workerPid());
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder + "/fd"), {}), 4);
  std::ifstream file(folder + "/status");
  const std::string status{std::istreambuf_iterator<char>(file), {}};
  EXPECT_NE(status.find("SigBlk:\t0000000000000000"), std::string::npos);
  EXPECT_NE(status.find(std::string("SigIgn:\t") + kIgnored), std::string::npos);
}

TEST_F(LiveWorker, HasAnEmptyNetworkWhereTheKernelGivesOne) {
  if (getuid() != 0) GTEST_SKIP() << "only root is sure to get one";
  std::error_code error;
  EXPECT_NE(std::filesystem::read_symlink(path("ns/net"), error),
            std::filesystem::read_symlink("/proc/self/ns/net"));
}

TEST_F(LiveWorker, HasAnEmptyEnvironment) {
  if (getuid() != 0) GTEST_SKIP() << kOnlyRootLooks;
  std::ifstream file(path("environ"));
  ASSERT_TRUE(file.is_open());
  EXPECT_EQ(file.peek(), std::ifstream::traits_type::eof());
}

// These tests are the last ones, because the process cannot change back from the user nobody. The
// kernel lets a process set the worker's CPU limit if it has the worker's user or CAP_SYS_RESOURCE.
// In some containers, root does not have this capability.
void becomeNobody() {
  constexpr uid_t kNobody = 65534;
  if (getuid() != 0) return;
  ASSERT_EQ(setresgid(kNobody, kNobody, kNobody), 0);
  ASSERT_EQ(setresuid(kNobody, kNobody, kNobody), 0);
}

/// The CPU time after which the kernel ends a process.
rlim_t cpuLimitOf(pid_t pid) {
  rlimit limit{};
  return prlimit(pid, RLIMIT_CPU, nullptr, &limit) == 0 ? limit.rlim_cur : 0;
}

TEST(Worker, MaySpendTheTimeOfAnEvaluationThoughItSendsMessagesAllTheTime) {
  becomeNobody();
  if (access(WALLS_WORKER, X_OK) != 0) GTEST_SKIP() << "nobody may not start a worker here";
  Problem problem;
  const auto engine = load(
      "function FindProxyForURL() { for (let i = 0; i < 12; ++i) {"
      "const end = Date.now() + 70; while (Date.now() < end) ; alert(i); } return 'DIRECT'; }",
      problem, false);
  ASSERT_NE(engine, nullptr) << problem.message;
  const auto pid = engine->workerPid();
  const rlim_t idle = cpuLimitOf(pid);
  std::atomic<bool> answered = false;
  std::atomic<rlim_t> highest = 0;
  std::thread observer([&] {
    while (!answered) {
      highest = std::max(highest.load(), cpuLimitOf(pid));
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  EXPECT_EQ(engine->evaluate("http://h/", "h").result, "DIRECT");
  answered = true;
  observer.join();
  EXPECT_GE(highest, idle + 5) << "the time limit of an evaluation";
  EXPECT_LE(cpuLimitOf(pid), idle + 2) << "nobody asks it any more";
}

TEST(Worker, IsEndedWhenItBurnsCpuTimeBetweenQuestions) {
  becomeNobody();
  if (access(WALLS_WORKER, X_OK) != 0) GTEST_SKIP() << "nobody may not start the worker here";
  Problem problem;
  const auto engine = load("ready", problem, true);
  ASSERT_NE(engine, nullptr) << problem.message;
  const auto pid = engine->workerPid();
  ASSERT_EQ(engine->evaluate("http://h/", "burn_later").result, "burning");
  std::chrono::milliseconds spent{};
  while (!hasEnded(pid)) {
    spent = std::max(spent, cpuTimeOf(pid));
    ASSERT_LT(spent, std::chrono::seconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_GT(spent, std::chrono::seconds(1)) << "an honest worker is not near the limit";
  EXPECT_EQ(engine->evaluate("http://h/", "url").result, "http://h/");
  EXPECT_TRUE(logged(LOG_WARNING, "pac_engine: worker " + std::to_string(pid) +
                                      " has ended and is started again (signal " +
                                      std::to_string(SIGXCPU) + ")"));
}

}  // namespace
