// Tests many questions at once, callbacks, the end of a client, and the resources that a client
// uses in its process.
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <latch>
#include <optional>
#include <sstream>
#include <thread>

#include "tests/unit/client/library/library_test.h"

using std::chrono::milliseconds;

namespace {

/// Maximum number of calls of one connection that are in progress at once. The bus allows 128 such
/// calls.
constexpr int kCalls = 64;

class ThreadsTest : public LibraryTest {};

/// The id of the thread of this process with this name.
std::optional<int> threadCalled(const std::string& wanted) {
  std::optional<int> found;
  DIR* const tasks = opendir("/proc/self/task");
  while (const auto* const task = readdir(tasks)) {
    std::string name;
    std::getline(std::ifstream(std::string("/proc/self/task/") + task->d_name + "/comm"), name);
    if (name == wanted) found = std::stoi(task->d_name);
  }
  closedir(tasks);
  return found;
}

/// Waits until no thread has the name, for a minute at most. When a thread ends, pthread_join() may
/// return before the thread leaves the kernel's list. @return whether the thread is gone
bool isGone(const std::string& name) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (threadCalled(name) && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
  return !threadCalled(name);
}

std::string statusOf(int thread, const std::string& field) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field + ":\t")) return line.substr(field.size() + 2);
  }
  return {};
}

/// The exit status of a child process that runs `does` after a fork.
template <typename Does>
int inAChild(Does does) {
  const pid_t child = fork();
  if (child == 0) _exit(does());
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return 126;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST_F(ThreadsTest, EightThreadsAskAtOnce) {
  constexpr int kThreads = 8;
  constexpr int kUrls = 16;
  constexpr int kRounds = 50;
  const auto url = [](int i) { return kUrl + std::to_string(i); };
  for (int i = 0; i < kUrls; ++i) {
    daemon.answer(url(i), {{"manual", "p.example:" + std::to_string(1000 + i)}});
  }
  const auto watching = client.watch([](Change) {});
  std::latch begin(kThreads);
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      begin.arrive_and_wait();
      for (int i = 0; i < kRounds * kUrls; ++i) {
        const int wanted = (i * 7 + thread) % kUrls;
        const auto answer = client.get(url(wanted), kLong);
        if (!answer || answer.entries()[0].port != 1000 + wanted) ++wrong;
        if (thread == 0 && i % 100 == 50) daemon.clear();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  // Each URL is asked for again after each change, and once more if a change came before the
  // answer.
  EXPECT_GE(daemon.count(), kUrls);
  EXPECT_LT(daemon.count(), kThreads * kRounds * kUrls / 4);
}

TEST_F(ThreadsTest, OneCallServesAllThatAskForTheSame) {
  daemon.answer(kUrl, {{"manual", "p.example:1"}, {}, true});
  for (int i = 0; i < 10; ++i) EXPECT_EQ(askAsync(kUrl), Status::ok);
  daemon.waitFor(1);
  std::thread waiting([&] { EXPECT_EQ(client.get(kUrl, kLong).status(), Status::ok); });
  for (int i = 0; i < 10; ++i) EXPECT_EQ(askAsync(kUrl), Status::ok);
  daemon.release();
  for (const auto& answer : answers.waitFor(20)) EXPECT_EQ(answer.status(), Status::ok);
  waiting.join();
  EXPECT_EQ(daemon.count(), 1);
}

TEST_F(ThreadsTest, AsManyQuestionsAsAreAllowedWaitAndNoMore) {
  const auto url = [](unsigned i) { return kUrl + std::to_string(i); };
  for (unsigned i = 0; i <= PROXYMANAGER_MAX_QUESTIONS; ++i) {
    daemon.answer(url(i), {{"manual", "p.example:1"}, {}, true});
  }
  for (unsigned i = 0; i < PROXYMANAGER_MAX_QUESTIONS; ++i) {
    ASSERT_EQ(askAsync(url(i)), Status::ok) << i;
  }
  EXPECT_EQ(askAsync(url(PROXYMANAGER_MAX_QUESTIONS)), Status::busy);
  EXPECT_EQ(client.get(url(PROXYMANAGER_MAX_QUESTIONS), kLong).status(), Status::busy);
  daemon.waitFor(kCalls);
  daemon.sync();
  EXPECT_EQ(daemon.count(), kCalls);
  daemon.release();
  for (const auto& answer : answers.waitFor(PROXYMANAGER_MAX_QUESTIONS)) {
    EXPECT_EQ(answer.status(), Status::ok);
  }
  EXPECT_EQ(daemon.count(), static_cast<int>(PROXYMANAGER_MAX_QUESTIONS));
  EXPECT_EQ(askAsync(url(PROXYMANAGER_MAX_QUESTIONS)), Status::ok);
}

TEST_F(ThreadsTest, AQuestionIsTakenBackOnce) {
  daemon.answer(kUrl, {{}, {}, true});
  proxymanager_id id = 0;
  EXPECT_EQ(askAsync(kUrl, &id), Status::ok);
  EXPECT_TRUE(client.cancel(id));
  EXPECT_FALSE(client.cancel(id));
  EXPECT_FALSE(client.cancel(id + 1));
  EXPECT_FALSE(client.cancel(0));
  EXPECT_EQ(answers.waitFor(1)[0].status(), Status::cancelled);
  ask(kUrl + "other");
  EXPECT_EQ(answers.all().size(), 1U);
}

TEST_F(ThreadsTest, TakingOneQuestionBackLeavesTheOthersOfItsUrl) {
  daemon.answer(kUrl, {{"manual", "p.example:1"}, {}, true});
  proxymanager_id id = 0;
  askAsync(kUrl, &id);
  askAsync(kUrl);
  daemon.waitFor(1);
  EXPECT_TRUE(client.cancel(id));
  EXPECT_EQ(answers.waitFor(1)[0].status(), Status::cancelled);
  daemon.release();
  EXPECT_EQ(answers.waitFor(2)[1].status(), Status::ok);
}

TEST_F(ThreadsTest, FreeingAClientEndsWhatWaits) {
  daemon.answer(kUrl, {{}, {}, true});
  std::optional<Client> ending{std::in_place};
  auto* const raw = ending->raw();
  std::vector<Status> told;  // all callbacks run on this thread
  std::vector<Status> within;
  for (int i = 0; i < 3; ++i) {
    ending->getAsync(kUrl, kLong, [&](const Answer& answer) {
      told.push_back(answer.status());
      proxymanager_answer* none = nullptr;
      within.push_back(static_cast<Status>(proxymanager_get(raw, "http://b/", 1000, &none)));
    });
  }
  proxymanager_id watching = 0;
  proxymanager_watch(
      raw, [](proxymanager_change, void*) {}, nullptr, &watching);
  daemon.waitFor(1);
  ending.reset();
  EXPECT_EQ(told, std::vector(3, Status::cancelled));
  EXPECT_EQ(within, std::vector(3, Status::cancelled));
  EXPECT_TRUE(isGone("pm-client"));
}

TEST_F(ThreadsTest, ACallbackMayAskButNotWait) {
  ask(kUrl + "remembered");
  Answers within;
  client.getAsync(kUrl, kLong, [&](const Answer&) {
    within.add(client.get(kUrl + "remembered", kLong));
    within.add(client.get(kUrl + "other", kLong));
    client.getAsync(kUrl + "third", kLong, [&](Answer answer) { within.add(std::move(answer)); });
  });
  const auto answered = within.waitFor(3);
  EXPECT_EQ(answered[0].status(), Status::ok);
  EXPECT_EQ(answered[1].status(), Status::busy);
  EXPECT_EQ(answered[2].status(), Status::ok);
}

TEST_F(ThreadsTest, ACallbackHearsOfItsOwnFailure) {
  daemon.answer(kUrl, {{}, "com.example.Error"});
  Recorded<std::string> names;
  const auto add = [&](const Answer&) { names.add(proxymanager::lastFailure().name); };
  client.getAsync(kUrl, kLong, add);
  EXPECT_EQ(names.waitFor(1)[0], "com.example.Error");
  EXPECT_EQ(proxymanager::lastFailure().name, "");
  client.getAsync(kUrl + "other", kLong, add);
  EXPECT_EQ(names.waitFor(2)[1], "");
}

TEST_F(ThreadsTest, ACallbackThatTakesLongHoldsUpNobodysLimit) {
  daemon.answer(kUrl + "slow", {{"manual", "p:1"}, {}, true});
  std::mutex mutex;
  std::unique_lock lock(mutex);
  std::latch called(1);
  client.getAsync(kUrl, kLong, [&](const Answer&) {
    called.count_down();
    const std::lock_guard held(mutex);
  });
  called.wait();
  EXPECT_EQ(client.get(kUrl + "slow", milliseconds(20)).status(), Status::tooSlow);
  lock.unlock();
  ask(kUrl + "behind");  // this reply comes after the callback has returned
}

TEST_F(ThreadsTest, NothingIsStartedBeforeTheFirstQuestion) {
  EXPECT_FALSE(threadCalled("pm-client"));
  EXPECT_EQ(client.get(kUrl, milliseconds(0)).status(), Status::tooSlow);
  EXPECT_FALSE(threadCalled("pm-client"));
  ask();
  ASSERT_TRUE(threadCalled("pm-client"));
  // All signals except SIGKILL, SIGSTOP and the two signals of the C library itself.
  EXPECT_EQ(statusOf(*threadCalled("pm-client"), "SigBlk"), "fffffffe7ffbfeff");
}

TEST_F(ThreadsTest, AClientAtRestDoesNotWakeUp) {
  const auto watching = client.watch([](Change) {});
  ask();
  const int thread = threadCalled("pm-client").value();
  const auto sleeps = [&] { return statusOf(thread, "voluntary_ctxt_switches"); };
  // Waits until the thread sleeps.
  while (statusOf(thread, "State").front() != 'S') std::this_thread::yield();
  const auto before = sleeps();
  daemon.announceState();
  ask();  // the client remembers this answer
  daemon.sync();
  std::this_thread::sleep_for(milliseconds(300));  // the thread must not wake during this time
  EXPECT_EQ(sleeps(), before);
  EXPECT_EQ(statusOf(thread, "State").front(), 'S');
}

TEST_F(ThreadsTest, AClientStaysWithTheParentOfAFork) {
  const auto watching = watch(changes);
  ask();
  changes.waitFor(1);
  const auto wrong = [this] {
    int count = 0;
    auto* const raw = client.raw();
    const auto callback = [](proxymanager_status, proxymanager_answer*, void*) { _exit(99); };
    const auto told = [](proxymanager_change, void*) { _exit(98); };
    proxymanager_answer* answer = nullptr;
    proxymanager_id id = 0;
    count += proxymanager_get(raw, kUrl.c_str(), 0, &answer) != PROXYMANAGER_FORKED;
    count += proxymanager_get_async(raw, "http://b/", 1000, callback, nullptr, nullptr) !=
             PROXYMANAGER_FORKED;
    count += proxymanager_watch(raw, told, nullptr, &id) != PROXYMANAGER_FORKED;
    count += proxymanager_cancel(raw, 1) != 0;
    proxymanager_unwatch(raw, 1);
    proxymanager_client_free(raw);
    return count;
  };
  EXPECT_EQ(inAChild(wrong), 0);
  // The child has not changed the parent's connection.
  ask(kUrl + "after");
  daemon.clear();
  EXPECT_EQ(changes.waitFor(2), (std::vector{Change::daemonCame, Change::answersChanged}));
}

TEST_F(ThreadsTest, AChildThatFreesItsCopyLeavesItsOwnDescriptorsOpen) {
  ask();
  const auto missing = [this] {
    const auto open = [] {
      const std::filesystem::directory_iterator all("/proc/self/fd");
      return std::distance(begin(all), end(all));
    };
    const auto before = open();
    proxymanager_client_free(client.raw());
    return static_cast<int>(before - open());
  };
  EXPECT_EQ(inAChild(missing), 0);
  ask(kUrl + "after");
}

}  // namespace
