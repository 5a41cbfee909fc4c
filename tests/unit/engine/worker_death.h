// Kills and stops workers before, during and after questions, and checks that only the question in
// progress is lost.
#pragma once

#include <gtest/gtest.h>
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "engine/pac_engine.h"
#include "tests/support/log_capture.h"
#include "tests/support/once_of_five.h"

namespace worker_death {

inline constexpr char kScript[] =
    "function FindProxyForURL(url, host) {\n"
    "  while (host == 'endless') ;\n"
    "  for (var i = 0, n = 0; i < 3000; ++i) n += i % 7;\n"
    "  return 'PROXY ' + host + ':' + n;\n"
    "}\n";

inline std::string rightAnswer(const std::string& host) {
  int n = 0;
  for (int i = 0; i < 3000; ++i) n += i % 7;
  return "PROXY " + host + ":" + std::to_string(n);
}

inline std::unique_ptr<pac_engine::Engine> load(std::chrono::milliseconds timeLimit) {
  pac_engine::Options options;
  options.timeLimit = timeLimit;
  pac_engine::Problem problem;
  auto engine = pac_engine::Engine::load(kScript, options, problem);
  EXPECT_NE(engine, nullptr) << problem.message;
  return engine;
}

inline long openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// The number of bytes that this process has allocated with malloc.
inline std::size_t heapBytes() {
  return mallinfo2().uordblks;
}

/// Asks the question `number`. If there is an answer, it must be the right one.
/// @return whether there was an answer
inline bool ask(pac_engine::Engine& engine, int number) {
  std::string host = "h";
  host += std::to_string(number);
  const auto reply = engine.evaluate("http://" + host + "/", host);
  if (reply.result) {
    EXPECT_EQ(*reply.result, rightAnswer(host));
  }
  return reply.result.has_value();
}

/// Waits until the child process `pid` has ended. Does not reap it, because the library does this.
inline void waitForEnd(pid_t pid) {
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
}

/// Kills the worker `times` times, in turn before, during and after a question.
inline void killAroundQuestions(int times) {
  int number = 0;
  const auto engine = load(std::chrono::seconds(60));  // the worker never reaches this limit
  ASSERT_NE(engine, nullptr);
  ASSERT_TRUE(ask(*engine, ++number));
  const auto descriptors = openDescriptors();
  const auto heap = heapBytes();
  for (int i = 0; i < times; ++i) {
    clearLog();  // the captured lines are not memory of the library
    const int signal = i % 2 == 0 ? SIGKILL : SIGSEGV;
    const pid_t pid = engine->workerPid();
    ASSERT_GT(pid, 0);
    switch (i % 3) {
      case 0:  // before: no question is in progress
        kill(pid, signal);
        waitForEnd(pid);
        break;
      case 1: {  // during: the question may have no answer
        std::atomic<bool> begun = false;
        std::thread killer([&] {
          while (!begun) {
          }
          std::this_thread::sleep_for(std::chrono::microseconds(i % 50 * 10));
          kill(pid, signal);
        });
        begun = true;
        ask(*engine, ++number);
        killer.join();
        waitForEnd(pid);
        break;
      }
      default:  // after: at the next question, the worker may still exist
        ASSERT_TRUE(ask(*engine, ++number));
        kill(pid, signal);
        ask(*engine, ++number);
        break;
    }
    ASSERT_TRUE(ask(*engine, ++number)) << "round " << i;
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_LT(heapBytes(), heap + (64U << 10U));
}

/// Waits until the process `pid` runs or is ready to run. It does so only during a question.
/// @return true if the process ran before it ended and before `answered` was set
inline bool waitUntilBusy(pid_t pid, const std::atomic<bool>& answered) {
  while (!answered) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string line((std::istreambuf_iterator<char>(file)), {});
    const auto name = line.rfind(") ");
    if (name == std::string::npos) return false;
    if (line[name + 2] == 'R') return true;
  }
  return false;
}

/// Asks while the worker is stopped or is about to be stopped. There must be no answer within the
/// time limit.
inline void askInVain(pac_engine::Engine& engine, const std::string& host,
                      std::chrono::milliseconds timeLimit) {
  const auto start = std::chrono::steady_clock::now();
  const auto reply = engine.evaluate("http://" + host + "/", host);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_FALSE(reply.result);
  EXPECT_EQ(reply.problem.message, "the script worker did not answer in time");
  EXPECT_GE(took, timeLimit);
  // The 60 seconds are for the end of the process on a busy machine.
  EXPECT_LT(took, timeLimit + pac_engine::kKillGrace + std::chrono::seconds(60));
}

/// Stops the worker before a question if `before` is true, and during a question otherwise. Then
/// asks another question.
inline void stopAtAQuestion(pac_engine::Engine& engine, bool before,
                            std::chrono::milliseconds timeLimit, int& number) {
  if (engine.workerPid() == 0)
    ask(engine, ++number);  // after a failed call of this function, no worker runs
  const pid_t pid = engine.workerPid();
  ASSERT_GT(pid, 0);
  if (before) {
    ASSERT_EQ(kill(pid, SIGSTOP), 0);
    askInVain(engine, "stopped-before", timeLimit);
  } else {
    std::atomic<bool> answered = false;
    std::thread stopper([pid, &answered] {
      if (waitUntilBusy(pid, answered)) kill(pid, SIGSTOP);
    });
    askInVain(engine, "endless", timeLimit);
    answered = true;
    stopper.join();
  }
  EXPECT_TRUE(ask(engine, ++number));
}

/// Stops the worker `times` times, in turn before and during a question.
inline void stopAroundQuestions(int times, std::chrono::milliseconds timeLimit) {
  std::unique_ptr<pac_engine::Engine> engine;
  onceOfFive([&] {
    engine = load(timeLimit);
    ASSERT_NE(engine, nullptr);
  });
  ASSERT_NE(engine, nullptr);
  const auto descriptors = openDescriptors();
  int number = 0;
  for (int i = 0; i < times; ++i) {
    SCOPED_TRACE("round " + std::to_string(i));
    onceOfFive([&] { stopAtAQuestion(*engine, i % 2 == 0, timeLimit, number); });
  }
  EXPECT_EQ(openDescriptors(), descriptors);
}

inline void expectNoChildren() {
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace worker_death
