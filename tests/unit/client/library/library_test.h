// A bus, a replacement of the daemon on it, and a client.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <proxymanager/client.hpp>
#include <string>
#include <vector>

#include "tests/support/private_bus.h"
#include "tests/support/stand_in_daemon.h"

using proxymanager::Answer;
using proxymanager::Change;
using proxymanager::Client;
using proxymanager::Kind;
using proxymanager::Status;
using proxymanager::Watch;

/// The limit for events that come soon, even on a busy machine.
inline constexpr std::chrono::seconds kLong{60};

inline const std::string kUrl = "http://www.example.org/";

/// Records reports in order, and waits for them.
template <typename Told>
class Recorded {
 public:
  void add(Told told) {
    const std::lock_guard lock(mMutex);
    mAll.push_back(std::move(told));
    mAdded.notify_all();
  }
  std::vector<Told> all() {
    const std::lock_guard lock(mMutex);
    return mAll;
  }
  /// Waits until there are `count` reports. @return all reports until then
  std::vector<Told> waitFor(std::size_t count) {
    std::unique_lock lock(mMutex);
    EXPECT_TRUE(mAdded.wait_for(lock, kLong, [&] { return mAll.size() >= count; }));
    return mAll;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mAdded;
  std::vector<Told> mAll;
};

using Changes = Recorded<Change>;
using Answers = Recorded<Answer>;

class LibraryTest : public testing::Test {
 protected:
  /// Asks a question. The test fails if there is no answer.
  Answer ask(const std::string& url = kUrl) {
    auto answer = client.get(url, kLong);
    EXPECT_EQ(answer.status(), Status::ok) << proxymanager::lastFailure().name;
    return answer;
  }

  Watch watch(Changes& told) {
    return client.watch([&told](Change change) { told.add(change); });
  }

  Status askAsync(const std::string& url, proxymanager_id* id = nullptr,
                  std::chrono::milliseconds limit = kLong) {
    return client.getAsync(
        url, limit, [this](Answer answer) { answers.add(std::move(answer)); }, id);
  }

  PrivateBus bus;
  StandInDaemon daemon;
  Answers answers;  // must outlive the client, which may still report
  Changes changes;
  Client client;
};
