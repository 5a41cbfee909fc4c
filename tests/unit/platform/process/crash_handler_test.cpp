#include "platform/process/crash_handler.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/own_root.h"
#include "tests/support/shortest.h"

// C linkage, so that the trace shows these names unchanged.
extern "C" {

// If GCC detects a null pointer, it replaces the code by a trap. GCC must not detect this null
// pointer.
int* volatile nowhere = nullptr;
volatile int deep = 1;

// The sanitizers are off here, because they would report the error in their own way.
__attribute__((noinline, no_sanitize("undefined", "address", "thread"))) void touchNowhere() {
  *nowhere = 1;
}

__attribute__((noinline)) void callTouchNowhere() {
  touchNowhere();
  deep = 0;  // prevents a tail call, so that the call above keeps its frame
}

__attribute__((noinline)) int recurse(int depth) {
  volatile char room[1024];
  room[0] = static_cast<char>(depth);
  return deep != 0 ? recurse(depth + 1) + room[0] : 0;
}
}

namespace {

using testing::KilledBySignal;

TEST(CrashHandler, IsInstalled) {
  EXPECT_EQ(initCrashHandler(), 0);
}

TEST(CrashHandler, ShowsTheWayToABadAccessAndDiesByIt) {
  EXPECT_EXIT(
      initCrashHandler() == 0 ? callTouchNowhere() : _exit(1), KilledBySignal(SIGSEGV),
      "process: fatal signal 11 \\(SIGSEGV\\) at 0x0 in thread crash_handler_t.*"
      "process: #0 0x[0-9a-f]{16} crash_handler_test\\+0x[0-9a-f]+ \\(touchNowhere\\+0x.*"
      "process: #1 0x[0-9a-f]{16} crash_handler_test\\+0x[0-9a-f]+ \\(callTouchNowhere\\+0x");
}

class CrashHandlerSignals : public testing::TestWithParam<int> {};

TEST_P(CrashHandlerSignals, AreReportedAndThenTakeTheirDefaultAction) {
  const int number = GetParam();
  EXPECT_EXIT(
      {
        initCrashHandler();
        raise(number);
      },
      KilledBySignal(number),
      "process: fatal signal " + std::to_string(number) + " \\(SIG" + sigabbrev_np(number) +
          "\\) sent by process [0-9]+ in thread .*process: #1 0x");
}

INSTANTIATE_TEST_SUITE_P(EachOf, CrashHandlerSignals,
                         testing::Values(SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS),
                         [](const auto& tested) {
                           return "SIG" + std::string(sigabbrev_np(tested.param));
                         });

TEST(CrashHandler, ReportsAnAbort) {
  EXPECT_EXIT(
      {
        initCrashHandler();
        std::abort();
      },
      KilledBySignal(SIGABRT), "process: fatal signal 6 \\(SIGABRT\\).*\\(abort\\+0x");
}

TEST(CrashHandler, ReportsAnOverflowOfTheMainThreadsStack) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer's own call stack overflows first";
#endif
  EXPECT_EXIT(
      {
        initCrashHandler();
        _exit(recurse(1));
      },
      KilledBySignal(SIGSEGV), "process: #[0-9]+ 0x[^#]*\\(recurse\\+0x.*process: #63 0x");
}

TEST(CrashHandler, StopsAfterItsFrameLimit) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer's own call stack overflows first";
#endif
  EXPECT_EXIT(
      {
        initCrashHandler();
        _exit(recurse(1));
      },
      KilledBySignal(SIGSEGV), testing::Not(testing::HasSubstr("process: #64 ")));
}

TEST(CrashHandler, ReportsAThreadThatHasASmallStackAndAllSignalsBlocked) {
  EXPECT_EXIT(
      {
        initCrashHandler();
        std::thread([] {
          sigset_t others;
          sigfillset(&others);
          sigdelset(&others, SIGSEGV);
          pthread_sigmask(SIG_BLOCK, &others, nullptr);
          pthread_setname_np(pthread_self(), "fetcher");
          callTouchNowhere();
        }).join();
      },
      KilledBySignal(SIGSEGV), "in thread fetcher \\([0-9]+\\).*\\(touchNowhere\\+0x");
}

[[noreturn]] void crashOnManyThreads() {
  constexpr int kThreads = 8;
  initCrashHandler();
  std::barrier together(kThreads);
  std::vector<std::thread> threads;
  for (int count = 0; count < kThreads; ++count) {
    threads.emplace_back([&] {
      together.arrive_and_wait();
      callTouchNowhere();
    });
  }
  for (auto& thread : threads) thread.join();
  _exit(1);
}

// A log daemon's socket in the test's own /dev.
class LogSocket {
 public:
  LogSocket() : mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    unlink("/dev/log");
    sockaddr_un address{AF_UNIX, "/dev/log"};
    if (bind(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) std::abort();
  }
  ~LogSocket() { close(mSocket); }

  std::vector<std::string> lines() {
    std::vector<std::string> lines;
    std::array<char, 1024> bytes;
    for (;;) {
      const ssize_t length = recv(mSocket, bytes.data(), bytes.size(), 0);
      if (length < 0) return lines;
      lines.emplace_back(bytes.data(), static_cast<std::size_t>(length));
    }
  }

 private:
  int mSocket;
};

TEST(CrashHandler, SaysTheSameLinesToSyslogAtCriticalLevel) {
  enterOwnRoot();
  LogSocket log;
  EXPECT_EXIT(initCrashHandler() == 0 ? callTouchNowhere() : _exit(1), KilledBySignal(SIGSEGV), "");
  const auto lines = log.lines();
  ASSERT_GE(lines.size(), 3u);
  const std::string prefix = "^<130>proxymanager_service\\[[0-9]+\\]: process: ";
  EXPECT_THAT(lines[0], testing::ContainsRegex(prefix + "fatal signal 11 \\(SIGSEGV\\) at 0x0 in"));
  EXPECT_THAT(lines[1],
              testing::ContainsRegex(prefix + "#0 0x.*\\(touchNowhere\\+0x[0-9a-f]+\\)$"));
}

// The process is started in the way in which systemd starts a service whose stderr is the journal.
[[noreturn]] void crashUnderTheJournal() {
  struct stat status {};
  fstat(STDERR_FILENO, &status);
  const auto stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  setenv("JOURNAL_STREAM", stream.c_str(), 1);
  initCrashHandler();
  callTouchNowhere();
  _exit(1);
}

TEST(CrashHandler, WritesEachLineOnceIfStderrIsTheJournal) {
  enterOwnRoot();
  LogSocket log;
  std::vector<std::string> lines;
  // The socket's queue is shorter than a report.
  std::jthread journal([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      for (auto& line : log.lines()) lines.push_back(std::move(line));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  EXPECT_EXIT(crashUnderTheJournal(), KilledBySignal(SIGSEGV),
              testing::Not(testing::HasSubstr("process: ")));
  journal.request_stop();
  journal.join();
  EXPECT_GE(lines.size(), 3u);
}

TEST(CrashHandler, WritesToTheJournalByStderrIfThereIsNoLogSocket) {
  enterOwnRoot();
  EXPECT_EXIT(crashUnderTheJournal(), KilledBySignal(SIGSEGV), "process: #1 ");
}

TEST(CrashHandler, FindsALogDaemonThatWasStartedAnewMeanwhile) {
  enterOwnRoot();
  auto first = std::make_unique<LogSocket>();
  ASSERT_EQ(initCrashHandler(), 0);
  first.reset();
  LogSocket second;
  EXPECT_EXIT(callTouchNowhere(), KilledBySignal(SIGSEGV), "");
  EXPECT_FALSE(second.lines().empty());
}

// The queue of the log socket is full, and no process reads it. After one short wait, the report
// stops writing to the log and continues on stderr. So the process ends long before the report's
// own time limit.
[[noreturn]] void crashWithAFullLog() {
  const int filler = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  const sockaddr_un address{AF_UNIX, "/dev/log"};
  while (sendto(filler, "x", 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
         1) {
  }
  initCrashHandler();
  callTouchNowhere();
  _exit(1);
}

TEST(CrashHandler, IsNotHeldUpByALogThatTakesNothing) {
  enterOwnRoot();
  LogSocket log;
  const auto took = shortest(std::chrono::seconds(4), [] {
    EXPECT_EXIT(crashWithAFullLog(), KilledBySignal(SIGSEGV), "process: #1 ");
  });
  EXPECT_LT(took, std::chrono::seconds(4));
}

// Runs `crash` in a child whose stderr is a full pipe that nobody reads. @return how it ended
int endWithFullStderr(void (*crash)()) {
  int full[2];
  if (pipe2(full, O_NONBLOCK) != 0) std::abort();
  while (write(full[1], "x", 1) == 1) {
  }
  fcntl(full[1], F_SETFL, 0);
  const pid_t child = fork();
  if (child == 0) {
    dup2(full[1], STDERR_FILENO);
    crash();
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  close(full[0]);
  close(full[1]);
  return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
}

TEST(CrashHandler, IsNotHeldUpByAStderrThatTakesNothing) {
  enterOwnRoot();
  LogSocket log;
  const auto crash = [] {
    initCrashHandler();
    callTouchNowhere();
  };
  const auto took =
      shortest(std::chrono::seconds(4), [&] { EXPECT_EQ(endWithFullStderr(crash), SIGSEGV); });
  EXPECT_LT(took, std::chrono::seconds(4));
  EXPECT_GE(log.lines().size(), 3u) << "the log hears it all the same";
}

// Another thread holds the lock of the loader's list of libraries, so the unwinder waits for this
// lock.
[[noreturn]] void crashWithoutTheListOfLibraries() {
  initCrashHandler();
  static std::promise<void> inside;
  std::thread([] {
    dl_iterate_phdr(
        [](dl_phdr_info*, std::size_t, void*) -> int {
          inside.set_value();
          for (;;) pause();
        },
        nullptr);
  }).detach();
  inside.get_future().wait();
  callTouchNowhere();
  _exit(1);
}

TEST(CrashHandler, EndsAReportThatHangsAfterFiveSeconds) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EXIT(crashWithoutTheListOfLibraries(), KilledBySignal(SIGALRM), "fatal signal 11");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4900));
}

// The full stderr makes the report wait, so the other threads crash during the report. They must
// not write a report, and they must not end the process before the report is complete.
TEST(CrashHandler, ReportsOneOfManyThreadsThatCrashTogether) {
  enterOwnRoot();
  LogSocket log;
  EXPECT_EQ(endWithFullStderr(crashOnManyThreads), SIGSEGV);
  const auto lines = log.lines();
  ASSERT_GE(lines.size(), 3u);
  EXPECT_THAT(lines[0], testing::HasSubstr("fatal signal 11"));
  EXPECT_THAT(lines[2], testing::HasSubstr("(callTouchNowhere+0x"));
  for (std::size_t index = 1; index < lines.size(); ++index) {
    EXPECT_THAT(lines[index], testing::HasSubstr("process: #" + std::to_string(index - 1) + " 0x"));
  }
}

}  // namespace
