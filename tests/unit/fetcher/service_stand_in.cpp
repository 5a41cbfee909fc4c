#include "tests/unit/fetcher/service_stand_in.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "fetcher/service_callbacks.h"

namespace {

struct Calls {
  std::mutex mutex;
  std::condition_variable called;
  int count = 0;
  std::function<void()> hook;
};

Calls& calls() {
  static auto& instance = *new Calls;
  return instance;
}

char place;

}  // namespace

ProxyManagerServiceImpl* standInService() {
  return reinterpret_cast<ProxyManagerServiceImpl*>(&place);
}

bool service_callbacks::notifyFileUpdated(ProxyManagerServiceImpl* service) {
  EXPECT_EQ(service, standInService());
  std::function<void()> hook;
  {
    auto& all = calls();
    const std::lock_guard lock(all.mutex);
    ++all.count;
    all.called.notify_all();
    hook = all.hook;
  }
  if (hook) hook();
  return true;
}

int timesUpdated() {
  auto& all = calls();
  const std::lock_guard lock(all.mutex);
  return all.count;
}

bool waitForUpdates(int times) {
  auto& all = calls();
  std::unique_lock lock(all.mutex);
  return all.called.wait_for(lock, std::chrono::seconds(60), [&] { return all.count >= times; });
}

void onUpdate(std::function<void()> hook) {
  auto& all = calls();
  const std::lock_guard lock(all.mutex);
  all.hook = std::move(hook);
}
