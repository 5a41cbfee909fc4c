// A fetch process that an attacker controls. The tests check what its packets can do to the daemon,
// and what its sandbox still allows. The only effect of each attack must be a failed download.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fetcher/download.h"
#include "fetcher/fetch_process.h"
#include "tests/support/log_capture.h"
#include "tests/unit/fetcher/files.h"
#include "tests/unit/fetcher/landlock.h"
#include "tests/unit/fetcher/own_root_test.h"

namespace fs = std::filesystem;

namespace {

const std::string kTarget = "/tmp/proxymanager.pac.tmp";

class HostileFetch : public OwnRootTest {
 protected:
  static fetcher::Download take(const std::string& step) {
    return fetcher::download(step, kTarget, {nullptr, HOSTILE_FETCH});
  }
  static int lowestFreeDescriptor() {
    const int lowest = dup(0);
    close(lowest);
    return lowest;
  }
  /// Expects a failed download that leaves neither file nor descriptor nor process.
  static void expectFailedDownload(const std::string& step, const std::string& line) {
    const int before = lowestFreeDescriptor();
    const auto result = take(step);
    EXPECT_FALSE(result.success);
    EXPECT_EQ("fetcher: " + result.error + " (", line);
    EXPECT_EQ(lowestFreeDescriptor(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_TRUE(logged(LOG_DEBUG, "PACFetcher-fileDownload result success:false, code:0"));
    EXPECT_TRUE(logged(LOG_ERR, "PACFetcher-fileDownload failed to remove file " + kTarget +
                                    " after unsuccessful download: 0"));
    for (const auto& entry : fs::directory_iterator("/tmp")) {
      EXPECT_NE(entry.path().string().rfind("/tmp/proxymanager", 0), 0u) << entry.path();
    }
  }
};

// The beginnings of log lines; the error follows the component's name.
const std::string kNoResult = "fetcher: the fetch process ended without a result (";
const std::string kBroken = "fetcher: the fetch process sent something else than a result (";

struct Step {
  const char* name;
  const std::string* line;
};

class BrokenRules : public HostileFetch, public testing::WithParamInterface<Step> {};

TEST_P(BrokenRules, FailTheDownload) {
  expectFailedDownload(GetParam().name, *GetParam().line);
  EXPECT_THAT(logLines(), testing::Contains(testing::Field(&LogLine::text,
                                                           testing::StartsWith(*GetParam().line))));
}

INSTANTIATE_TEST_SUITE_P(OfAnyKind, BrokenRules,
                         testing::Values(Step{"garbage", &kBroken}, Step{"nothing", &kNoResult},
                                         Step{"ready_again", &kBroken}, Step{"ten", &kBroken},
                                         Step{"too_long", &kBroken}, Step{"flood", &kBroken},
                                         Step{"close_all", &kNoResult}, Step{"crash", &kNoResult}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(HostileFetch, FailsWithoutALibcurlHandleAndLeavesTheFileUntouched) {
  writeFile(kTarget, "untouched");
  EXPECT_FALSE(
      fetcher::download("http://127.0.0.1:1/", kTarget, {nullptr, HANDLELESS_FETCH}).success);
  EXPECT_EQ(readFile(kTarget), "untouched");
  EXPECT_THAT(logLines(), testing::ElementsAre(
                              LogLine{LOG_INFO, "PACFetcher-fileDownload called"},
                              LogLine{LOG_ERR, "fetcher: no download: libcurl gave no handle"},
                              LogLine{LOG_ERR,
                                      "PACFetcher-fileDownload failed to initialize curl handle! "
                                      "url:http://127.0.0.1:1/, target_file:" +
                                          kTarget}));
}

TEST_F(HostileFetch, IsHeardThoughItEndedWithoutReadingTheRequest) {
  std::string problem;
  const auto process = fetcher::FetchProcess::start(HANDLELESS_FETCH, problem);
  ASSERT_NE(process, nullptr) << problem;
  process->send({30, 512000, 5, "http://127.0.0.1:1/"});
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT), 0);
  const auto ready =
      process->receiveReady(std::chrono::steady_clock::now() + std::chrono::seconds(60));
  ASSERT_TRUE(ready.has_value()) << process->end();
  EXPECT_EQ(ready->state, fetcher::FetchReady::State::noHandle);
}

TEST_F(HostileFetch, IsADownloadWithoutAHandleIfTheProgramIsMissing) {
  EXPECT_FALSE(fetcher::download("http://a/", kTarget, {nullptr, "/nowhere/fetch"}).success);
  EXPECT_TRUE(logged(LOG_ERR, "fetcher: no download: /nowhere/fetch: No such file or directory"));
  EXPECT_TRUE(logged(LOG_ERR,
                     "PACFetcher-fileDownload failed to initialize curl handle! url:http://a/, "
                     "target_file:" +
                         kTarget));
  EXPECT_FALSE(fs::exists(kTarget));
}

#if WALLS

class KillingWall : public HostileFetch, public testing::WithParamInterface<const char*> {};

TEST_P(KillingWall, EndsTheProcess) {
  expectFailedDownload(GetParam(), kNoResult);
  EXPECT_TRUE(logged(LOG_WARNING, kNoResult + "signal " + std::to_string(SIGSYS) + ")"));
}

constexpr const char* kKilled[] = {"longer_file",
                                   "fork",
                                   "vfork",
                                   "exec",
                                   "kill_parent",
                                   "ptrace",
                                   "read_parent",
                                   "raw_socket",
                                   "other_netlink",
                                   "multipath",
                                   "udp_lite",
                                   "ping",
                                   "cpu_time_of_others",
                                   "processors_of_others",
                                   "timer",
                                   "datagram_pair",
                                   "listen",
                                   "executable_memory",
                                   "memory_file",
                                   "setuid",
                                   "unshare",
                                   "write_open",
                                   "chmod",
                                   "unlink"};
constexpr const char* kRefused[] = {"bus",    "read_passwd", "read_parents_memory",
                                    "memory", "descriptors", "thread"};
const std::string kRefusedByLandlock = "read_passwd";

INSTANTIATE_TEST_SUITE_P(Fetch, KillingWall, testing::ValuesIn(kKilled),
                         [](const auto& test) { return std::string(test.param); });

class RefusingWall : public HostileFetch, public testing::WithParamInterface<const char*> {};

// The process exits with status 40 if its attack was refused.
TEST_P(RefusingWall, StandsInTheWay) {
  if (GetParam() == kRefusedByLandlock && !kernelHasLandlock()) {
    GTEST_SKIP() << "this kernel has no Landlock";
  }
  expectFailedDownload(GetParam(), kNoResult);
  EXPECT_TRUE(logged(LOG_WARNING, kNoResult + "exit 40)"));
}

INSTANTIATE_TEST_SUITE_P(Fetch, RefusingWall, testing::ValuesIn(kRefused),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(HostileFetch, HasRoomForThreadsWhateverStackTheDaemonHas) {
  const rlimit large{rlim_t{512} << 20U, RLIM_INFINITY};
  if (setrlimit(RLIMIT_STACK, &large) != 0) GTEST_SKIP() << "this machine has a lower hard limit";
  expectFailedDownload("thread", kNoResult);
  EXPECT_TRUE(logged(LOG_WARNING, kNoResult + "exit 40)"));
}

/// Removes a capability from this thread, or gives it back. A capability can be given back only
/// while it is in the permitted set.
bool setCapability(unsigned capability, bool present) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
  if (syscall(SYS_capget, &header, sets) != 0) return false;
  const std::uint32_t bit = 1U << capability;
  sets[0].effective = present ? sets[0].effective | bit : sets[0].effective & ~bit;
  return syscall(SYS_capset, &header, sets) == 0;
}

TEST_F(HostileFetch, ThatCannotBeKilledLosesItsDownload) {
  ASSERT_TRUE(setCapability(CAP_KILL, false));
  const auto result = take("result_and_live_on");
  ASSERT_TRUE(setCapability(CAP_KILL, true));
  EXPECT_FALSE(result.success);
  EXPECT_EQ(result.error, "the fetch process does not end");
  EXPECT_FALSE(fs::exists(kTarget));
  pid_t alive = 0;
  std::ifstream("/proc/thread-self/children") >> alive;
  ASSERT_GT(alive, 0);
  EXPECT_TRUE(logged(LOG_WARNING,
                     "sandbox: process " + std::to_string(alive) + " was killed and does not end"));
  EXPECT_EQ(kill(alive, SIGKILL), 0);
  EXPECT_EQ(waitpid(alive, nullptr, 0), alive);
}

TEST_F(HostileFetch, CannotMakeTheFileLongerThanAScript) {
  const auto result = take("fill_file");
  EXPECT_TRUE(result.success);  // a false report without harm: the file contains no script
  EXPECT_EQ(fs::file_size(kTarget), 512000u);
}

/// A fetch process that has entered its sandbox and waits.
class LiveFetch : public HostileFetch {
 protected:
  void SetUp() override {
    std::string problem;
    mProcess = fetcher::FetchProcess::start(HOSTILE_FETCH, problem);
    ASSERT_NE(mProcess, nullptr) << problem;
    const auto ready =
        mProcess->receiveReady(std::chrono::steady_clock::now() + std::chrono::seconds(60));
    ASSERT_TRUE(ready);
    EXPECT_EQ(ready->problem, "");
    mFolder = "/proc/" + std::to_string(mProcess->pid()) + "/";
  }

  std::unique_ptr<fetcher::FetchProcess> mProcess;
  std::string mFolder;
};

TEST_F(LiveFetch, HasTheWallsThatTheKernelShows) {
  const std::string status = readFile(mFolder + "status");
  for (const char* line :
       {"Uid:\t65534\t65534\t65534\t65534\n", "Gid:\t65534\t65534\t65534\t65534\n", "Groups:\t \n",
        "CapInh:\t0000000000000000\n", "CapPrm:\t0000000000000000\n", "CapEff:\t0000000000000000\n",
        "CapBnd:\t0000000000000000\n", "CapAmb:\t0000000000000000\n", "NoNewPrivs:\t1\n",
        "Seccomp:\t2\n"}) {
    EXPECT_THAT(status, testing::HasSubstr(line));
  }
  EXPECT_EQ(readFile(mFolder + "oom_score_adj"), "1000\n");
}

TEST_F(LiveFetch, HasTheLimitsOfADownload) {
  const std::string limits = readFile(mFolder + "limits");
  for (const auto& [name, value] :
       std::map<std::string, std::string>{{"Max address space", "167772160"},  // 160 MiB
                                          {"Max file size", "512000"},
                                          {"Max cpu time", "10"},
                                          {"Max open files", "64"},
                                          {"Max core file size", "0"},
                                          {"Max locked memory", "0"}}) {
    EXPECT_THAT(limits, testing::ContainsRegex(name + " +" + value + " +" + value + " ")) << name;
  }
}

TEST_F(LiveFetch, HasOneDescriptorBeyondTheStandardThree) {
  std::vector<std::string> beyond;
  for (const auto& entry : fs::directory_iterator(mFolder + "fd")) {
    const auto target = fs::read_symlink(entry.path()).string();
    if (target != "/dev/null") beyond.push_back(target);
  }
  ASSERT_EQ(beyond.size(), 1u);
  EXPECT_THAT(beyond.front(), testing::StartsWith("socket:"));
}

/// A daemon with its own user, in a process that cannot change back to its first user.
class FetchOfAServiceUser : public HostileFetch {
 protected:
  void SetUp() override {
    constexpr uid_t kServiceUser = 4711;
    // The test uses a copy, because perhaps only root has access to the build folder.
    fs::copy_file(HOSTILE_FETCH, mProgram);
    if (setgroups(0, nullptr) != 0 || setresgid(kServiceUser, kServiceUser, kServiceUser) != 0 ||
        setresuid(kServiceUser, kServiceUser, kServiceUser) != 0) {
      GTEST_SKIP() << "this machine gives no second user";
    }
    ASSERT_EQ(prctl(PR_SET_DUMPABLE, 0), 0);  // as the daemon does
  }

  /// @return the line of the log about the end of a fetch process that did `step`
  std::string endOf(const std::string& step) const {
    clearLog();
    EXPECT_FALSE(fetcher::download(step, kTarget, {nullptr, mProgram}).success);
    for (const LogLine& line : logLines()) {
      if (line.text.starts_with(kNoResult)) return line.text.substr(kNoResult.size());
    }
    return {};
  }

  const std::string mProgram = "/usr/local/proxymanager-fetch-hostile";
};

TEST_F(FetchOfAServiceUser, MeetsTheSameWalls) {
  for (const char* step : kKilled) {
    EXPECT_EQ(endOf(step), "signal " + std::to_string(SIGSYS) + ")") << step;
  }
  for (const char* step : kRefused) {
    if (step == kRefusedByLandlock && !kernelHasLandlock()) continue;
    EXPECT_EQ(endOf(step), "exit 40)") << step;
  }
}

TEST_F(FetchOfAServiceUser, HasNoPrivilegeThatTheKernelShows) {
  std::string problem;
  const auto process = fetcher::FetchProcess::start(mProgram, problem);
  ASSERT_NE(process, nullptr) << problem;
  ASSERT_TRUE(process->receiveReady(std::chrono::steady_clock::now() + std::chrono::seconds(60)));
  const std::string status = readFile("/proc/" + std::to_string(process->pid()) + "/status");
  for (const char* line :
       {"Uid:\t4711\t4711\t4711\t4711\n", "Gid:\t4711\t4711\t4711\t4711\n",
        "CapInh:\t0000000000000000\n", "CapPrm:\t0000000000000000\n", "CapEff:\t0000000000000000\n",
        "CapAmb:\t0000000000000000\n", "NoNewPrivs:\t1\n", "Seccomp:\t2\n"}) {
    EXPECT_THAT(status, testing::HasSubstr(line));
  }
}

/// After this call, this process and its children see a kernel without Landlock.
void hideLandlock() {
  sock_filter lines[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_landlock_create_ruleset, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{std::size(lines), lines};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

TEST_F(FetchOfAServiceUser, WithoutLandlockReadsFilesButNotTheMemoryOfTheDaemon) {
  hideLandlock();
  EXPECT_EQ(fetcher::download("read_passwd", kTarget, {nullptr, mProgram}).error, "survived");
  EXPECT_EQ(endOf("read_parents_memory"), "exit 40)");
}

TEST_F(HostileFetch, OfAKernelWithoutLandlockIsNamedOnceInTheLog) {
  hideLandlock();
  leaveOutOfLog({});
  for (int i = 0; i < 2; ++i) take("nothing");
  EXPECT_EQ(countLog(LOG_NOTICE, kNoLandlockLine), 1);
}

#endif

}  // namespace
