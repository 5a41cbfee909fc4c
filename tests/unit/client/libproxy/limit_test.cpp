// Tests the longest time that a program waits for an answer.
#include <chrono>
#include <functional>

#include "tests/support/once_of_five.h"
#include "tests/unit/client/libproxy/libproxy_test.h"

namespace {

/// The time limit that the documents promise.
constexpr std::chrono::seconds kPromised{10};

std::chrono::steady_clock::duration spent(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::steady_clock::now() - begin;
}

TEST_F(WithDaemon, AScriptThatNeverEndsHoldsNobodyLongerThanTenSeconds) {
  int tries = 0;
  onceOfFive([&] {
    const auto url = "http://slow" + std::to_string(tries++) + "/";
    daemon.answer(url, {{"pacurl", "PROXY slow:1"}, "", true, false});
    const auto time = spent([&] { EXPECT_EQ(ask(url), kDirect); });
    EXPECT_LE(time, kPromised);
    EXPECT_GE(time, std::chrono::seconds(9));
  });
}

TEST_F(WithDaemon, ABusThatHangsHoldsNobodyLongerThanTenSeconds) {
  bus.pause();
  setenv("http_proxy", "http://e:1", 1);
  onceOfFive([this] {
    const auto time = spent([&] { EXPECT_EQ(ask(), Texts{"http://e:1"}); });
    EXPECT_LE(time, kPromised);
  });
  bus.goOn();
}

}  // namespace
