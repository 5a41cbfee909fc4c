// Tests when a client forgets its answers, what it reports to its watches, and which senders it
// trusts.
#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "tests/unit/client/library/library_test.h"

using std::chrono::milliseconds;

namespace {

class FollowingTest : public LibraryTest {
 protected:
  /// Whether the client remembers an answer for kUrl. Asks no question.
  bool remembers() { return static_cast<bool>(client.get(kUrl, milliseconds(0))); }
};

constexpr auto kCame = Change::daemonCame;
constexpr auto kWent = Change::daemonWent;
constexpr auto kChanged = Change::answersChanged;
using List = std::vector<Change>;

TEST_F(FollowingTest, ForgetsWhenTheDaemonSaysThatAnswersHaveChanged) {
  const auto watching = watch(changes);
  EXPECT_EQ(changes.waitFor(1), List{kCame});
  ask();
  daemon.clear();
  EXPECT_EQ(changes.waitFor(2), (List{kCame, kChanged}));
  EXPECT_FALSE(remembers());
  daemon.answer(kUrl, {{"manual", "p.example:2"}});
  EXPECT_EQ(ask().entries()[0].port, 2);
  EXPECT_EQ(daemon.count(), 2);
}

TEST_F(FollowingTest, ForgetsWhenTheNameChangesHands) {
  StandInDaemon other(false);
  const auto watching = watch(changes);
  ask();
  other.takeName();
  EXPECT_EQ(changes.waitFor(2), (List{kCame, kCame}));
  EXPECT_FALSE(remembers());
  ask();
  EXPECT_EQ(other.count(), 1);
  EXPECT_EQ(daemon.count(), 1);
}

TEST_F(FollowingTest, TellsTheDaemonsGoingAndComing) {
  const auto watching = watch(changes);
  ask();
  daemon.giveName();
  EXPECT_EQ(changes.waitFor(2), (List{kCame, kWent}));
  EXPECT_FALSE(remembers());
  EXPECT_EQ(client.get(kUrl, kLong).status(), Status::noDaemon);
  daemon.takeName();
  EXPECT_EQ(changes.waitFor(3), (List{kCame, kWent, kCame}));
  ask();
  ask();
  EXPECT_EQ(daemon.count(), 2);
}

TEST_F(FollowingTest, AQuestionThatADaemonLeavesUnansweredEnds) {
  auto ending = std::make_optional<StandInDaemon>(false);
  ending->takeName();
  ending->answer(kUrl, {{}, {}, true});
  askAsync(kUrl);
  ending->waitFor(1);
  ending.reset();
  EXPECT_EQ(answers.waitFor(1)[0].status(), Status::noDaemon);
}

TEST_F(FollowingTest, BelievesTheDaemonAlone) {
  StandInDaemon stranger(false);
  const auto watching = watch(changes);
  ask();
  for (const auto& name : stranger.others()) {
    stranger.clear(name.c_str());
    stranger.forgeOwnerChange(name.c_str());
  }
  stranger.clear();
  stranger.sync();
  ask(kUrl + "behind");  // this reply comes after the forged message
  EXPECT_TRUE(remembers());
  EXPECT_EQ(changes.all(), List{kCame});
  daemon.clear();
  EXPECT_EQ(changes.waitFor(2), (List{kCame, kChanged}));
}

TEST_F(FollowingTest, DoesNotRememberAnAnswerThatAChangeOvertook) {
  daemon.answer(kUrl, {{"manual", "p.example:1"}, {}, true});
  askAsync(kUrl);
  daemon.waitFor(1);
  daemon.clearThenRelease();
  EXPECT_EQ(answers.waitFor(1)[0].status(), Status::ok);
  EXPECT_FALSE(remembers());
}

TEST_F(FollowingTest, AQuestionAfterAChangeIsNotAnsweredAsBeforeIt) {
  daemon.answer(kUrl, {{"manual", "old.example:1"}, {}, true});
  const auto watching = watch(changes);
  askAsync(kUrl);
  daemon.waitFor(1);
  daemon.clear();
  changes.waitFor(2);
  daemon.answer(kUrl, {{"manual", "new.example:1"}, {}, true});
  askAsync(kUrl);
  daemon.waitFor(2);
  daemon.release();
  const auto ended = answers.waitFor(2);
  EXPECT_EQ(ended[0].entries()[0].host, "old.example");
  EXPECT_EQ(ended[1].entries()[0].host, "new.example");
  EXPECT_EQ(ask().entries()[0].host, "new.example");
  EXPECT_EQ(daemon.count(), 2);
}

TEST_F(FollowingTest, DoesNotRememberWhatOneAnsweredWhoHasTheNameNoMore) {
  StandInDaemon other(false);
  daemon.answer(kUrl, {{"manual", "old.example:1"}, {}, true});
  const auto watching = watch(changes);
  askAsync(kUrl);
  daemon.waitFor(1);
  other.takeName();
  changes.waitFor(2);
  daemon.release();
  EXPECT_EQ(answers.waitFor(1)[0].status(), Status::ok);
  EXPECT_FALSE(remembers());
}

TEST_F(FollowingTest, AQuestionThatWaitsWhenTheBusEndsIsTold) {
  daemon.answer(kUrl, {{}, {}, true});
  askAsync(kUrl);
  daemon.waitFor(1);
  bus.kill();
  EXPECT_EQ(answers.waitFor(1)[0].status(), Status::noBus);
}

TEST_F(FollowingTest, AWatchFindsTheBusAgain) {
  const auto watching = watch(changes);
  ask();
  bus.kill();
  EXPECT_EQ(changes.waitFor(2), (List{kCame, kWent}));
  EXPECT_FALSE(remembers());
  EXPECT_EQ(client.get(kUrl, kLong).status(), Status::noBus);
  bus.start();
  StandInDaemon next;
  EXPECT_EQ(changes.waitFor(3), (List{kCame, kWent, kCame}));
  ask();
  ask();
  EXPECT_EQ(next.count(), 1);
}

TEST_F(FollowingTest, WithoutAWatchTheNextQuestionFindsTheBusAgain) {
  ask();
  bus.kill();
  bus.start();
  StandInDaemon next;
  // Perhaps the client notices the end of the old bus only during the question.
  auto answer = client.get(kUrl, kLong);
  while (next.count() == 0) answer = client.get(kUrl, kLong);
  EXPECT_EQ(answer.status(), Status::ok);
}

TEST_F(FollowingTest, AWatchOfAnAbsentBusIsToldSoAndHearsOfItsComing) {
  bus.kill();
  Client early;
  const auto watching = early.watch([this](Change change) { changes.add(change); });
  EXPECT_EQ(changes.waitFor(1), List{kWent});
  bus.start();
  StandInDaemon next;
  EXPECT_EQ(changes.waitFor(2).back(), kCame);
}

TEST_F(FollowingTest, AWatchOfAClientThatLostTheBusLongAgoLooksForIt) {
  ask();
  bus.kill();
  while (remembers()) std::this_thread::yield();  // until the client has noticed the end of the bus
  bus.start();
  StandInDaemon next;
  const auto watching = watch(changes);
  EXPECT_EQ(changes.waitFor(1), List{kCame});
}

TEST_F(FollowingTest, AWatchIsToldFirstWhetherTheDaemonIsThere) {
  Changes earlier;
  const auto zeroth = watch(earlier);
  earlier.waitFor(1);
  daemon.giveName();
  earlier.waitFor(2);
  const auto first = watch(changes);
  EXPECT_EQ(changes.waitFor(1), List{kWent});
  daemon.takeName();
  EXPECT_EQ(changes.waitFor(2), (List{kWent, kCame}));
  Changes later;
  const auto second = watch(later);
  EXPECT_EQ(later.waitFor(1), List{kCame});
  daemon.clear();
  EXPECT_EQ(later.waitFor(2), (List{kCame, kChanged}));
  EXPECT_EQ(changes.waitFor(3), (List{kWent, kCame, kChanged}));
}

TEST_F(FollowingTest, AWatchThatHasEndedIsCalledNoMore) {
  Changes others;
  const auto other = watch(others);
  {
    const auto watching = watch(changes);
    changes.waitFor(1);
  }
  daemon.clear();
  others.waitFor(2);
  EXPECT_EQ(changes.all(), List{kCame});
}

TEST_F(FollowingTest, TheEndOfAWatchWaitsForItsCallback) {
  std::mutex mutex;
  std::condition_variable changed;
  bool isCalled = false;
  bool mayReturn = false;
  bool isReturning = false;
  auto watching = client.watch([&](Change) {
    std::unique_lock lock(mutex);
    isCalled = true;
    changed.notify_all();
    changed.wait(lock, [&] { return mayReturn; });
    isReturning = true;
  });
  std::unique_lock lock(mutex);
  ASSERT_TRUE(changed.wait_for(lock, kLong, [&] { return isCalled; }));
  lock.unlock();
  bool wasReturning = false;
  std::thread ender([&] {
    watching = Watch();
    const std::lock_guard held(mutex);
    wasReturning = isReturning;
  });
  // The sleep cannot make a correct program fail. It gives a wrong program time to end the watch
  // without waiting for the callback, so that the test finds this.
  std::this_thread::sleep_for(milliseconds(20));
  lock.lock();
  mayReturn = true;
  changed.notify_all();
  lock.unlock();
  ender.join();
  EXPECT_TRUE(wasReturning);
}

TEST_F(FollowingTest, AWatchMayEndItselfAndOthersInItsCallback) {
  Changes others;
  std::optional<Watch> first;
  std::optional<Watch> second;
  std::mutex mutex;  // locked until the watches are in their variables
  std::unique_lock lock(mutex);
  auto kept = std::make_shared<int>(7);
  int seen = 0;
  first = client.watch([&, kept](Change change) {
    const std::lock_guard held(mutex);
    second.reset();
    first.reset();
    seen = *kept;  // the callable's data exist until the callable returns
    changes.add(change);
  });
  second = watch(others);
  Changes last;
  const auto third = watch(last);
  lock.unlock();
  changes.waitFor(1);
  EXPECT_EQ(last.waitFor(1), List{kCame});
  daemon.clear();
  EXPECT_EQ(last.waitFor(2), (List{kCame, kChanged}));
  EXPECT_EQ(changes.all(), List{kCame});
  EXPECT_EQ(others.all(), List{});
  EXPECT_EQ(seen, 7);
}

/// A watch that replaces itself by a new watch in each call.
struct Replaced {
  proxymanager_client* client;
  std::atomic<bool> isOver = false;
  proxymanager_id id = 0;  ///< the present watch; only the client's thread uses it

  static void called(proxymanager_change, void* context) {
    auto& self = *static_cast<Replaced*>(context);
    proxymanager_unwatch(self.client, self.id);
    self.id = 0;
    if (!self.isOver) proxymanager_watch(self.client, called, context, &self.id);
  }
};

TEST_F(FollowingTest, AWatchThatReplacesItselfHoldsNobodyUp) {
  Replaced replaced{client.raw()};
  proxymanager_id first = 0;
  ASSERT_EQ(proxymanager_watch(client.raw(), Replaced::called, &replaced, &first), PROXYMANAGER_OK);
  ask();
  replaced.isOver = true;
  ask(kUrl + "behind");
  EXPECT_EQ(daemon.count(), 2);
}

TEST_F(FollowingTest, AWatchThatIsAssignedOverEnds) {
  Changes others;
  auto first = watch(changes);
  auto second = watch(others);
  EXPECT_EQ(changes.waitFor(1), List{kCame});
  EXPECT_EQ(others.waitFor(1), List{kCame});
  first = std::move(second);
  EXPECT_TRUE(first);
  EXPECT_FALSE(second);
  daemon.clear();
  EXPECT_EQ(others.waitFor(2), (List{kCame, kChanged}));
  EXPECT_EQ(changes.all(), List{kCame});  // `first` has ended, so it reports no change
}

TEST_F(FollowingTest, AsManyWatchesAsAreAllowedAndNoMore) {
  std::vector<Watch> watches;
  for (unsigned i = 0; i < PROXYMANAGER_MAX_WATCHES; ++i) {
    watches.push_back(watch(changes));
    EXPECT_TRUE(watches.back());
  }
  changes.waitFor(PROXYMANAGER_MAX_WATCHES);
  Status status = Status::ok;
  EXPECT_FALSE(client.watch([](Change) {}, &status));
  EXPECT_EQ(status, Status::busy);
  watches.pop_back();
  const auto again = client.watch([](Change) {}, &status);
  EXPECT_TRUE(again);
  EXPECT_EQ(status, Status::ok);
  daemon.clear();
  changes.waitFor(2 * PROXYMANAGER_MAX_WATCHES - 1);
}

}  // namespace
