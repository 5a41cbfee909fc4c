// If a worker ends, or breaks the rules of the conversation, the only effect is that its question
// gets no answer. The worker is the real program with a special engine: the host of a question
// decides what it does.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>

#include <chrono>
#include <ostream>
#include <string>

#include "engine/pac_engine.h"
#include "engine/wire/protocol.h"
#include "tests/support/log_capture.h"
#include "tests/support/once_of_five.h"

namespace {

using namespace pac_engine;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A time limit that no test reaches, even on a busy machine.
constexpr milliseconds kPatience{60'000};
// A time limit for a worker that continues until it is killed. It is long enough for the start of a
// worker.
constexpr milliseconds kHaste{1000};

std::unique_ptr<Engine> engine(Problem& problem, milliseconds timeLimit,
                               const char* script = "ready") {
  Options options;
  options.workerProgram = WALLS_WORKER;
  options.timeLimit = timeLimit;
  return Engine::load(script, options, problem);
}

std::unique_ptr<Engine> readyEngine(milliseconds timeLimit = kPatience) {
  Problem problem;
  auto made = engine(problem, timeLimit);
  EXPECT_NE(made, nullptr) << problem.message;
  return made;
}

struct Breach {
  const char* step;
  const char* problem;
};

/// Prints the name of a case, which becomes a part of the test's name.
std::ostream& operator<<(std::ostream& stream, const Breach& breach) {
  return stream << breach.step;
}

const std::string kTooLate = "did not answer in time";

class Breaches : public ::testing::TestWithParam<Breach> {
 protected:
  static void expectItsCost(milliseconds timeLimit) {
    const auto one = readyEngine(timeLimit);
    ASSERT_NE(one, nullptr);
    const auto pid = one->workerPid();
    const auto start = steady_clock::now();
    const auto reply = one->evaluate("http://h/", GetParam().step);
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(60));
    EXPECT_FALSE(reply.result);
    EXPECT_EQ(reply.problem.message, std::string("the script worker ") + GetParam().problem);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1) << "the worker has not been waited for";
    EXPECT_EQ(one->evaluate("http://h/", "url").result, "http://h/");
    EXPECT_NE(one->workerPid(), pid);
  }
};

TEST_P(Breaches, CostTheQuestionAndNothingElse) {
  if (GetParam().problem != kTooLate) {
    expectItsCost(kPatience);
  } else {
    onceOfFive([] { expectItsCost(kHaste); });
  }
}

INSTANTIATE_TEST_SUITE_P(Worker, Breaches,
                         ::testing::Values(Breach{"exit", "ended without an answer"},
                                           Breach{"hang", "did not answer in time"},
                                           Breach{"garbage", "sent what is no message"},
                                           Breach{"too_long", "sent what is no message"},
                                           Breach{"nothing", "ended without an answer"},
                                           Breach{"late_refusal", "answered what was not asked"},
                                           Breach{"early_ready", "answered what was not asked"},
                                           Breach{"wrong_serial", "answered what was not asked"},
                                           Breach{"alert_flood", "did not answer in time"},
                                           Breach{"questions_without_reading",
                                                  "does not read its answers"}),
                         [](const auto& test) { return test.param.step; });

TEST(Worker, ThatAnswersTwiceLosesTheNextQuestion) {
  const auto one = readyEngine();
  EXPECT_EQ(one->evaluate("http://h/", "first_answer").result, "PROXY a:1");
  const auto second = one->evaluate("http://h/", "url");
  EXPECT_FALSE(second.result) << "what is left of the first question answers no other";
  EXPECT_EQ(second.problem.message, "the script worker answered what was not asked");
  EXPECT_EQ(one->evaluate("http://h/", "url").result, "http://h/");
}

TEST(Worker, ThatBreaksTheRulesWhileLoadingIsRefused) {
  for (const char* step : {"garbage", "nothing", "wrong_serial", "exit", "hang"}) {
    Problem problem;
    const bool goesOn = std::string(step) == "hang";
    EXPECT_EQ(engine(problem, goesOn ? kHaste : kPatience, step), nullptr) << step;
    EXPECT_EQ(problem.message.rfind("the script worker ", 0), 0U) << problem.message;
  }
}

TEST(Worker, HasItsTextsMadeVisible) {
  const auto one = readyEngine();
  EXPECT_EQ(one->evaluate("http://h/", "error").problem.message, "Error: a\\x0ab");
  one->evaluate("http://h/", "alert");
  EXPECT_TRUE(logged(LOG_DEBUG, "pac_engine: alert: tab\\x09here"));
}

TEST(Worker, ThatFloodsTheLogGetsItsShareOfItOnly) {
  onceOfFive([] {
    const auto one = readyEngine(kHaste);
    ASSERT_NE(one, nullptr);
    clearLog();
    one->evaluate("http://h/", "alert_flood");
    // An alert without text counts as one byte of the limit kMaxAlertBytes.
    EXPECT_EQ(countLog(LOG_DEBUG, "pac_engine: alert: "), static_cast<int>(kMaxAlertBytes));
  });
}

TEST(Worker, MayAnswerWith64KiBButNotWithANul) {
  const auto one = readyEngine();
  const auto longest = one->evaluate("http://h/", "long").result;
  ASSERT_TRUE(longest);
  EXPECT_EQ(longest->size(), kMaxResultBytes);
  const auto reply = one->evaluate("http://h/", "nul");
  EXPECT_FALSE(reply.result);
  EXPECT_EQ(reply.problem.message, "the result holds a NUL character");
}

TEST(Worker, ThatIsGoneBetweenQuestionsIsStartedAgainWithoutLoss) {
  const auto one = readyEngine();
  const auto pid = one->workerPid();
  ASSERT_EQ(kill(pid, SIGKILL), 0);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(one->evaluate("http://h/", "url").result, "http://h/");
  EXPECT_TRUE(logged(LOG_WARNING, "pac_engine: worker " + std::to_string(pid) +
                                      " has ended and is started again (signal 9)"));
}

}  // namespace
