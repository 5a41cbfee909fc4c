#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "fetcher/download.h"
#include "fetcher/fetch_process.h"
#include "fetcher/pac_fetcher.h"
#include "tests/support/http_server.h"
#include "tests/support/once_of_five.h"
#include "tests/support/own_root.h"

TEST(SlowDownload, EndsAfterThirtySecondsThoughBytesKeepComing) {
  enterOwnRoot();
  HttpServer server;
  server.route("/p.pac", [](Connection& peer) {
    peer.send("HTTP/1.1 200 OK\r\n\r\n");
    while (peer.send("/* FindProxyForURL */\n")) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(PACFetcher::fileDownload(server.url("/p.pac"), "/tmp/p.tmp"));
  const auto taken = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(taken, std::chrono::seconds(29));
  EXPECT_LT(taken, std::chrono::seconds(60));
  EXPECT_FALSE(std::filesystem::exists("/tmp/p.tmp"));
}

namespace {

/// The duration of a download by the hostile program, in seconds.
double secondsOf(const std::string& step) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(fetcher::download(step, "/tmp/p.tmp", {nullptr, HOSTILE_FETCH}).success);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace

// The daemon enforces the time limit: it kills a process that sends nothing, and a process that
// sends its result but does not exit.
class SlowProcess : public testing::TestWithParam<const char*> {};

TEST_P(SlowProcess, IsKilledAfterThirtySecondsAndAHalfAtMost) {
  enterOwnRoot();
  onceOfFive([] {
    const double seconds = secondsOf(GetParam());
    EXPECT_GE(seconds, 30.0);
    EXPECT_LT(seconds, 30.5);
    EXPECT_FALSE(std::filesystem::exists("/tmp/p.tmp"));
  });
}

INSTANTIATE_TEST_SUITE_P(Hostile, SlowProcess, testing::Values("hang", "result_and_stay"),
                         [](const auto& test) { return std::string(test.param); });

// No process kills the fetch process, and its parent continues to run. This happens if the daemon
// runs as root without CAP_KILL.
TEST(UnkilledProcess, EndsItselfIfTheDaemonMayNotKillIt) {
  enterOwnRoot();
  std::string problem;
  const auto process = fetcher::FetchProcess::start(HOSTILE_FETCH, problem);
  ASSERT_NE(process, nullptr) << problem;
  const auto begin = std::chrono::steady_clock::now();
  process->send({30, 512000, 5, "hang"});
  process->sendFile(1);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(process->pid()), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(info.si_status, SIGKILL);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}
