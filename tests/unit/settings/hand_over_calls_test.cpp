// Tests when the configuration is handed over. A simulated daemon runs on a private bus of the
// test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

#include "base/bus_names.h"
#include "settings/hand_over.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_bus.h"

using namespace settings;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

constexpr seconds kLimit{60};
constexpr const char* kForeign =
    "settings: another program has changed the configuration; it stays";

/// The present time, by the clock that file times use.
std::pair<std::time_t, long> fileTime() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return {now.tv_sec, now.tv_nsec};
}

struct EventCloser {
  void operator()(sd_event* event) const { sd_event_unref(event); }
};
struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;

/// Keeps a configuration, as the daemon does. Runs in the same event loop as the tested objects.
class Daemon {
 public:
  explicit Daemon(sd_bus* bus) : mBus(bus) {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("getProxyconfig", "", "(ssssss)", onGet, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("updateProxyconfig", "sssbss", "i", onUpdate, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    require(
        sd_bus_add_object_vtable(mBus, nullptr, base::kObjectPath, base::kInterface, table, this),
        "sd_bus_add_object_vtable");
  }
  ~Daemon() {
    for (auto* call : held) sd_bus_message_unref(call);
  }
  void appear() const { require(sd_bus_request_name(mBus, base::kBusName, 0), "the name"); }
  void vanish() const { require(sd_bus_release_name(mBus, base::kBusName), "the name"); }

  Configuration configuration;
  int updates = 0;
  int reads = 0;
  int failures = 0;      ///< number of updates that will be refused
  int readFailures = 0;  ///< number of reads that will be refused
  bool holds = false;
  std::deque<sd_bus_message*> held;  ///< updates that are not answered

 private:
  static int onGet(sd_bus_message* call, void* self, sd_bus_error* error) {
    auto& daemon = *static_cast<Daemon*>(self);
    daemon.reads++;
    if (daemon.readFailures > 0) {
      daemon.readFailures--;
      return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "why");
    }
    const auto& now = daemon.configuration;
    return sd_bus_reply_method_return(call, "(ssssss)", modeText(now.mode), now.proxyUrl.c_str(),
                                      now.pacUrl.c_str(), "n", now.user.c_str(),
                                      now.password.c_str());
  }
  static int onUpdate(sd_bus_message* call, void* self, sd_bus_error* error) {
    auto& daemon = *static_cast<Daemon*>(self);
    daemon.updates++;
    if (daemon.failures > 0) {
      daemon.failures--;
      return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "why");
    }
    const char *mode = nullptr, *proxyUrl = nullptr, *pacUrl = nullptr;
    require(sd_bus_message_read(call, "sss", &mode, &proxyUrl, &pacUrl), "the call");
    const bool isManual = std::string(mode) == "manual";
    daemon.configuration = {isManual ? Mode::kManual : Mode::kPacUrl, proxyUrl, pacUrl, "", ""};
    if (daemon.holds) {
      daemon.held.push_back(sd_bus_message_ref(call));
      return 1;
    }
    return sd_bus_reply_method_return(call, "i", 0);
  }

  sd_bus* mBus;
};

class HandOverCalls : public testing::Test, DaemonLink::Listener {
 protected:
  void SetUp() override {
    sd_event* event = nullptr;
    ASSERT_GE(sd_event_new(&event), 0);
    mEvent.reset(event);
    mOwn = connect();
    mOther = connect();
    daemon = std::make_unique<Daemon>(mOther.get());
    mLink = std::make_unique<DaemonLink>(mOwn.get(), mOwn.get());
    handOver = std::make_unique<HandOver>(event, *mLink, "/nonexistent/script.pac");
    mLink->watch(*this);
    clearLog();
  }

  Bus connect() {
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    EXPECT_GE(sd_bus_attach_event(bus, mEvent.get(), 0), 0);
    return Bus(bus);
  }
  void daemonAppeared() override { handOver->daemonAppeared(); }
  void daemonVanished() override { handOver->daemonVanished(); }

  template <typename Condition>
  testing::AssertionResult waitFor(Condition condition) {
    const auto end = steady_clock::now() + kLimit;
    while (!condition()) {
      if (steady_clock::now() > end) return testing::AssertionFailure() << "not in time";
      sd_event_run(mEvent.get(), 10'000);
    }
    return testing::AssertionSuccess();
  }
  /// Returns the seconds until the loop's next timer fires, or 0 if there is no timer. A call that
  /// waits for its reply has a timer, too.
  static double nextTimer() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
      std::ifstream file(entry.path());
      for (std::string line; std::getline(file, line);) {
        long long whole = 0, rest = 0;
        if (std::sscanf(line.c_str(), "it_value: (%lld, %lld)", &whole, &rest) != 2) continue;
        if (whole != 0 || rest != 0) {
          return static_cast<double>(whole) + static_cast<double>(rest) / 1e9;
        }
      }
    }
    return 0;
  }
  /// Whether the next timer fires about `pause` seconds from now. The remaining time may be up to a
  /// third shorter, because a slow machine reads it late. It may be up to half a second longer,
  /// because the loop's timers are not exact.
  static bool isNear(double pause) {
    const double next = nextTimer();
    return next > pause * 2 / 3 && next < pause + 0.5;
  }
  bool isHandedOver(int updates) const {
    return daemon->updates == updates && handOver->lastHandOver() &&
           handOver->lastProblem().empty();
  }

  const Configuration mScript{Mode::kPacUrl, "", "http://127.0.0.1:9/p.pac", "", ""};
  const Configuration mManual{Mode::kManual, "http://a.example:1", "", "", ""};
  PrivateBus mBusDaemon;
  std::unique_ptr<sd_event, EventCloser> mEvent;
  Bus mOwn;
  Bus mOther;
  std::unique_ptr<Daemon> daemon;
  std::unique_ptr<DaemonLink> mLink;
  std::unique_ptr<HandOver> handOver;
};

TEST_F(HandOverCalls, EachAppearanceIsConfiguredEvenIfNothingDiffers) {
  daemon->configuration = mManual;
  handOver->want(mManual);
  for (int appearance = 1; appearance <= 3; appearance++) {
    daemon->appear();
    EXPECT_TRUE(waitFor([&] { return isHandedOver(appearance); }));
    daemon->vanish();
    EXPECT_TRUE(waitFor([&] { return !mLink->isThere(); }));
    EXPECT_FALSE(handOver->lastHandOver());
  }
}

TEST_F(HandOverCalls, AMissingScriptIsAskedForAfterGrowingPauses) {
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1); }));
  EXPECT_TRUE(waitFor([&] { return isNear(10); }));
  handOver->refreshEvery(seconds{1});
  ASSERT_TRUE(waitFor([&] { return isHandedOver(2); }));
  handOver->refreshEvery(seconds{0});
  EXPECT_TRUE(waitFor([&] { return isNear(30); }));
}

TEST_F(HandOverCalls, AChangeOfTheNetworkAsksForAMissingScriptAndBeginsThePausesAgain) {
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1) && isNear(10); }));
  const auto begin = steady_clock::now();
  handOver->networkChanged();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(2); }));
  EXPECT_GE(steady_clock::now() - begin, milliseconds{900});
  ASSERT_TRUE(waitFor([&] { return isNear(10) || isNear(30); }));
  EXPECT_TRUE(isNear(10));
}

TEST_F(HandOverCalls, AModeWithoutAScriptWaitsForNone) {
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1) && isNear(10); }));
  handOver->want(mManual);
  ASSERT_TRUE(waitFor([&] {
    return logged(LOG_NOTICE, "settings: the daemon has the configuration, mode manual");
  }));
  for (int turns = 0; turns < 3; turns++) sd_event_run(mEvent.get(), 0);
  EXPECT_EQ(nextTimer(), 0);
  handOver->networkChanged();
  for (int turns = 0; turns < 3; turns++) sd_event_run(mEvent.get(), 0);
  EXPECT_EQ(nextTimer(), 0);
}

TEST_F(HandOverCalls, AScriptThatAnotherProgramHasConfiguredIsWaitedForToo) {
  handOver->want(mManual);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1); }));
  // Like "proxymanagerctl pacurl URL --save": first the daemon gets the configuration, then the
  // file changes.
  daemon->configuration = mScript;
  handOver->want(mScript);
  ASSERT_TRUE(waitFor([&] { return daemon->reads == 1; }));
  EXPECT_TRUE(waitFor([&] { return isHandedOver(2) && isNear(10); }));
  // The service now treats the configuration as its own. Nothing differs, so nothing more is handed
  // over.
  handOver->check();
  ASSERT_TRUE(waitFor([&] { return daemon->reads == 2; }));
  handOver->want(mManual);
  EXPECT_TRUE(waitFor([&] { return daemon->configuration == mManual; }));
  EXPECT_EQ(daemon->updates, 3);
}

TEST_F(HandOverCalls, TheFirstPauseForAScriptIsShortAgainAfterOneHasArrived) {
  char path[] = "/tmp/settings_test_XXXXXX";
  const int file = mkstemp(path);
  ASSERT_GE(file, 0);
  const timespec old[] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(futimens(file, old), 0);
  handOver = std::make_unique<HandOver>(mEvent.get(), *mLink, path);
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1) && isNear(10); }));
  const auto handedOver = fileTime();
  ASSERT_TRUE(waitFor([&] { return fileTime() > handedOver; }));
  ASSERT_EQ(futimens(file, nullptr), 0);
  handOver->refreshEvery(seconds{1});
  const std::string line = "settings: the daemon has the configuration, mode pacurl";
  ASSERT_TRUE(waitFor([&] { return countLog(LOG_NOTICE, line) == 2; }));
  handOver->refreshEvery(seconds{0});
  sd_event_run(mEvent.get(), 0);  // sets the loop's timer
  EXPECT_TRUE(isNear(10));
  close(file);
  unlink(path);
}

TEST_F(HandOverCalls, AScriptOfThePreviousConfigurationDoesNotCountAsTheNewOne) {
  char path[] = "/tmp/settings_test_XXXXXX";
  const int file = mkstemp(path);
  ASSERT_GE(file, 0);
  handOver = std::make_unique<HandOver>(mEvent.get(), *mLink, path);
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1); }));
  daemon->holds = true;
  Configuration other = mScript;
  other.pacUrl = "http://127.0.0.1:9/other.pac";
  handOver->want(other);
  ASSERT_TRUE(waitFor([&] { return daemon->held.size() == 1; }));
  // The daemon stores the script of the first configuration, and then accepts the other
  // configuration.
  const auto called = fileTime();
  ASSERT_TRUE(waitFor([&] { return fileTime() > called; }));
  ASSERT_EQ(futimens(file, nullptr), 0);
  const auto stored = fileTime();
  ASSERT_TRUE(waitFor([&] { return fileTime() > stored; }));
  daemon->holds = false;
  ASSERT_GE(sd_bus_reply_method_return(daemon->held.front(), "i", 0), 0);
  const std::string line = "settings: the daemon has the configuration, mode pacurl";
  ASSERT_TRUE(waitFor([&] { return countLog(LOG_NOTICE, line) == 2; }));
  handOver->networkChanged();
  EXPECT_TRUE(waitFor([&] { return isHandedOver(3); }));
  close(file);
  unlink(path);
}

TEST_F(HandOverCalls, ANetworkThatChangesAgainAndAgainDoesNotPostponeTheRetry) {
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1); }));
  EXPECT_TRUE(waitFor([&] {
    handOver->networkChanged();
    return isHandedOver(3);
  }));
}

TEST_F(HandOverCalls, AHandOverDoesNotPostponeTheRetryAfterAChangeOfTheNetwork) {
  handOver->want(mManual);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1); }));
  // A new default route changes which configuration is in force. The route may be so new that the
  // download still fails.
  handOver->want(mScript);
  handOver->networkChanged();
  ASSERT_TRUE(waitFor([&] {
    return logged(LOG_NOTICE, "settings: the daemon has the configuration, mode pacurl");
  }));
  sd_event_run(mEvent.get(), 0);  // sets the loop's timer
  EXPECT_LT(nextTimer(), 2);
  ASSERT_TRUE(waitFor([&] { return isHandedOver(3); }));
  EXPECT_TRUE(waitFor([&] { return isNear(10); }));
}

TEST_F(HandOverCalls, TheTimeIsThatSinceWhichTheDaemonHasTheConfiguration) {
  const std::time_t begin = std::time(nullptr);
  daemon->configuration = mManual;
  handOver->leaveOthers(true);
  handOver->want(mManual);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return daemon->reads == 1; }));
  handOver->leaveOthers(false);
  ASSERT_TRUE(waitFor([&] {
    handOver->check();
    return handOver->lastHandOver().has_value();
  }));
  const std::time_t since = *handOver->lastHandOver();
  EXPECT_GE(since, begin);
  // Neither a later check nor a failed hand-over changes the time of the last hand-over.
  ASSERT_TRUE(waitFor([&] { return std::time(nullptr) > since; }));
  const int reads = daemon->reads;
  handOver->check();
  ASSERT_TRUE(waitFor([&] { return daemon->reads > reads; }));
  daemon->failures = 1;
  handOver->want(mScript);
  ASSERT_TRUE(waitFor([&] { return handOver->lastProblem() == "why"; }));
  EXPECT_EQ(handOver->lastHandOver(), since);
}

TEST_F(HandOverCalls, ARefreshHandsOverAgainAndAgain) {
  handOver->want(mScript);
  handOver->refreshEvery(seconds{1});
  daemon->appear();
  const auto begin = steady_clock::now();
  // Without refreshes, the retries for a missing script would cause the third hand-over after 30 s,
  // and the fourth one a minute later.
  EXPECT_TRUE(waitFor([&] { return isHandedOver(4); }));
  EXPECT_GE(steady_clock::now() - begin, milliseconds{2900});
}

TEST_F(HandOverCalls, ARefreshLeavesAnotherProgramsConfiguration) {
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1); }));
  daemon->configuration = mManual;
  handOver->refreshEvery(seconds{1});
  EXPECT_TRUE(waitFor([&] { return logged(LOG_INFO, kForeign); }));
  EXPECT_EQ(daemon->updates, 1);
  EXPECT_TRUE(handOver->isForeign());
  EXPECT_FALSE(handOver->isOurs(mManual));
  // After a change of the source, the service replaces the other program's configuration.
  Configuration other = mManual;
  other.proxyUrl = "http://b.example:2";
  handOver->want(other);
  EXPECT_TRUE(waitFor([&] { return isHandedOver(2); }));
  EXPECT_FALSE(handOver->isForeign());
}

TEST_F(HandOverCalls, ARefreshIsForScriptsAlone) {
  handOver->want(mManual);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1); }));
  handOver->refreshEvery(seconds{1});
  const auto end = steady_clock::now() + milliseconds{1500};
  ASSERT_TRUE(waitFor([&] { return steady_clock::now() > end; }));
  EXPECT_EQ(daemon->updates, 1);
  EXPECT_EQ(daemon->reads, 0);
}

TEST_F(HandOverCalls, AChangeDuringACallIsHandedOverAfterIt) {
  daemon->holds = true;
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return daemon->held.size() == 1; }));
  handOver->want(mManual);
  daemon->holds = false;
  ASSERT_GE(sd_bus_reply_method_return(daemon->held.front(), "i", 0), 0);
  EXPECT_TRUE(waitFor([&] { return isHandedOver(2); }));
  EXPECT_EQ(daemon->configuration, mManual);
}

TEST_F(HandOverCalls, AReplyThatComesAfterTheDaemonsEndCountsForNothing) {
  daemon->holds = true;
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return daemon->held.size() == 1; }));
  daemon->vanish();
  ASSERT_TRUE(waitFor([&] { return !mLink->isThere(); }));
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return daemon->held.size() == 2; }));
  ASSERT_GE(sd_bus_reply_method_return(daemon->held[0], "i", 0), 0);
  // Messages of one connection arrive in order. So when this later reply has arrived, the earlier
  // reply has arrived, too.
  bool isRead = false;
  mLink->read([&isRead](const auto&, const std::string&) { isRead = true; });
  ASSERT_TRUE(waitFor([&] { return isRead; }));
  EXPECT_FALSE(handOver->lastHandOver());
  ASSERT_GE(sd_bus_reply_method_return(daemon->held[1], "i", 0), 0);
  EXPECT_TRUE(waitFor([&] { return handOver->lastHandOver().has_value(); }));
}

TEST_F(HandOverCalls, TheFirstPauseIsShortAgainAfterASuccess) {
  const auto count = [](int pause) {
    return countLog(LOG_WARNING,
                    "settings: the hand-over failed, next in " + std::to_string(pause) + " s: why");
  };
  daemon->failures = 1;
  handOver->want(mScript);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(2); }));
  EXPECT_EQ(count(1), 1);
  daemon->failures = 1;
  handOver->want(mManual);
  ASSERT_TRUE(waitFor([&] { return isHandedOver(4); }));
  EXPECT_EQ(count(1), 2);
  EXPECT_EQ(count(2), 0);
}

TEST_F(HandOverCalls, AProblemIsForgottenWhenALaterLookFindsNothingToDo) {
  handOver->want(mManual);
  daemon->appear();
  ASSERT_TRUE(waitFor([&] { return isHandedOver(1); }));
  const std::string line = "settings: the hand-over failed, next in 1 s: why";
  for (int time = 1; time <= 2; time++) {
    daemon->readFailures = 1;
    handOver->check();
    ASSERT_TRUE(waitFor([&] { return handOver->lastProblem() == "why"; }));
    EXPECT_EQ(countLog(LOG_WARNING, line), time);
    EXPECT_TRUE(waitFor([&] { return handOver->lastProblem().empty(); }));
    EXPECT_EQ(daemon->reads, 2 * time);
  }
  EXPECT_EQ(daemon->updates, 1);
}

TEST_F(HandOverCalls, AnAdministratorsChangeDoesNotWaitForThePauseAfterAFailure) {
  /// Whether a call waits for its reply, and the loop has no earlier timer.
  const auto isCalling = [&] {
    sd_event_run(mEvent.get(), 0);
    return nextTimer() > 10;
  };
  const auto hasFailed = [&](int pause) {
    const std::string line = "settings: the hand-over failed, next in ";
    return waitFor([&] { return logged(LOG_WARNING, line + std::to_string(pause) + " s: why"); });
  };
  daemon->failures = 2;
  daemon->holds = true;
  handOver->want(mManual);
  daemon->appear();
  ASSERT_TRUE(hasFailed(1));
  handOver->check();
  EXPECT_TRUE(isCalling());
  ASSERT_TRUE(hasFailed(2));
  handOver->want(mScript);
  EXPECT_TRUE(isCalling());
  EXPECT_TRUE(waitFor([&] { return daemon->held.size() == 1; }));
}

}  // namespace
