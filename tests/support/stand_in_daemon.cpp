#include "tests/support/stand_in_daemon.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace {

constexpr std::chrono::seconds kLimit{60};

void check(int result) {
  if (result < 0) throw std::runtime_error("the stand-in's bus: " + std::to_string(result));
}

}  // namespace

StandInDaemon::StandInDaemon(bool takesName) : mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  check(sd_bus_new(&mBus));
  check(sd_bus_set_address(mBus, getenv("DBUS_SYSTEM_BUS_ADDRESS")));
  check(sd_bus_set_bus_client(mBus, 1));
  check(sd_bus_start(mBus));
  if (takesName) check(sd_bus_request_name(mBus, kDaemonName, SD_BUS_NAME_ALLOW_REPLACEMENT));
  check(sd_bus_add_filter(mBus, nullptr, onMessage, this));
  mThread = std::thread([this] { run(); });
}

StandInDaemon::~StandInDaemon() {
  {
    const std::lock_guard lock(mMutex);
    mIsEnding = true;
  }
  eventfd_write(mWake, 1);
  mThread.join();
  for (auto& [message, reply] : mHeld) sd_bus_message_unref(message);
  sd_bus_flush_close_unref(mBus);
  close(mWake);
}

void StandInDaemon::answer(const std::string& url, Reply reply) {
  const std::lock_guard lock(mMutex);
  mReplies[url] = std::move(reply);
}

void StandInDaemon::answer(std::function<Reply(const std::string& url)> rule) {
  const std::lock_guard lock(mMutex);
  mRule = std::move(rule);
}

void StandInDaemon::release() {
  post([this] { releaseNow(); });
}

int StandInDaemon::count(const std::string& url) {
  const std::lock_guard lock(mMutex);
  return mCounts[url];
}

int StandInDaemon::count() {
  const std::lock_guard lock(mMutex);
  return mCount;
}

void StandInDaemon::waitFor(int count) {
  std::unique_lock lock(mMutex);
  ASSERT_TRUE(mAsked.wait_for(lock, kLimit, [&] { return mCount >= count; })) << mCount;
}

void StandInDaemon::takeName() {
  post([this] {
    check(sd_bus_request_name(mBus, kDaemonName,
                              SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING));
  });
}

void StandInDaemon::giveName() {
  post([this] { check(sd_bus_release_name(mBus, kDaemonName)); });
}

void StandInDaemon::clear(const char* destination) {
  post([&] { clearNow(destination); });
}

void StandInDaemon::clearThenRelease() {
  post([this] {
    clearNow(nullptr);
    releaseNow();
  });
}

void StandInDaemon::announceState() {
  post([this] {
    check(sd_bus_emit_signal(mBus, kDaemonPath, kDaemonInterface, "ProxyMgrStateEvent", "i", 1));
  });
}

void StandInDaemon::forgeOwnerChange(const char* destination) {
  post([&] {
    sd_bus_message* signal = nullptr;
    check(sd_bus_message_new_signal(mBus, &signal, "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                    "NameOwnerChanged"));
    check(sd_bus_message_append(signal, "sss", kDaemonName, ":1.0", ""));
    check(sd_bus_message_set_destination(signal, destination));
    check(sd_bus_send(mBus, signal, nullptr));
    sd_bus_message_unref(signal);
  });
}

void StandInDaemon::sync() {
  post([this] {
    check(sd_bus_call_method(mBus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                             "org.freedesktop.DBus", "GetId", nullptr, nullptr, nullptr));
  });
}

std::vector<std::string> StandInDaemon::others() {
  std::vector<std::string> names;
  post([&] {
    const char* own = nullptr;
    check(sd_bus_get_unique_name(mBus, &own));
    char** all = nullptr;
    check(sd_bus_list_names(mBus, &all, nullptr));
    for (char** name = all; *name != nullptr; ++name) {
      if (**name == ':' && std::string_view(*name) != own) names.emplace_back(*name);
      free(*name);
    }
    free(all);
  });
  return names;
}

int StandInDaemon::onMessage(sd_bus_message* message, void* self, sd_bus_error*) {
  auto& daemon = *static_cast<StandInDaemon*>(self);
  if (sd_bus_message_is_method_call(message, kDaemonInterface, "getProxyurl") <= 0) return 0;
  const char* url = nullptr;
  check(sd_bus_message_read_basic(message, 's', &url));
  Reply reply{{"manual", "http://p.example:1"}, {}, false, false};
  {
    const std::lock_guard lock(daemon.mMutex);
    ++daemon.mCounts[url];
    ++daemon.mCount;
    if (const auto found = daemon.mReplies.find(url); found != daemon.mReplies.end()) {
      reply = found->second;
    } else if (daemon.mRule) {
      reply = daemon.mRule(url);
    }
  }
  daemon.mAsked.notify_all();
  if (reply.isHeld) {
    daemon.mHeld.emplace_back(sd_bus_message_ref(message), reply);
  } else {
    daemon.answerNow(message, reply);
  }
  return 1;
}

void StandInDaemon::answerNow(sd_bus_message* message, const Reply& reply) {
  // If the bus is gone, as in some tests, the reply has no effect.
  if (!reply.error.empty()) {
    sd_bus_reply_method_errorf(message, reply.error.c_str(), "%s", "why");
    return;
  }
  if (reply.isNumber) {
    sd_bus_reply_method_return(message, "i", 1);
    return;
  }
  sd_bus_message* answer = nullptr;
  check(sd_bus_message_new_method_return(message, &answer));
  check(sd_bus_message_open_container(answer, 'a', "s"));
  for (const auto& text : reply.texts) {
    check(sd_bus_message_append_basic(answer, 's', text.c_str()));
  }
  check(sd_bus_message_close_container(answer));
  sd_bus_send(mBus, answer, nullptr);
  sd_bus_message_unref(answer);
}

void StandInDaemon::releaseNow() {
  {
    const std::lock_guard lock(mMutex);
    for (auto& [url, reply] : mReplies) reply.isHeld = false;
  }
  for (auto& [message, reply] : mHeld) {
    answerNow(message, reply);
    sd_bus_message_unref(message);
  }
  mHeld.clear();
}

void StandInDaemon::clearNow(const char* destination) {
  sd_bus_message* signal = nullptr;
  check(
      sd_bus_message_new_signal(mBus, &signal, kDaemonPath, kDaemonInterface, "notifyClearcache"));
  if (destination != nullptr) check(sd_bus_message_set_destination(signal, destination));
  check(sd_bus_send(mBus, signal, nullptr));
  sd_bus_message_unref(signal);
}

void StandInDaemon::post(std::function<void()> task) {
  std::packaged_task<void()> packed(std::move(task));
  auto done = packed.get_future();
  {
    const std::lock_guard lock(mMutex);
    mTasks.push_back(std::move(packed));
  }
  eventfd_write(mWake, 1);
  if (done.wait_for(kLimit) != std::future_status::ready) throw std::runtime_error("no end");
  done.get();
}

void StandInDaemon::run() {
  for (;;) {
    std::packaged_task<void()> task;
    {
      const std::lock_guard lock(mMutex);
      if (mIsEnding) return;
      if (!mTasks.empty()) {
        task = std::move(mTasks.front());
        mTasks.pop_front();
      }
    }
    if (task.valid()) {
      task();
      continue;
    }
    const int result = sd_bus_process(mBus, nullptr);
    if (result > 0) continue;
    // If the bus has ended, the functions that the test posts still run.
    pollfd polled[2] = {{mWake, POLLIN, 0},
                        {result < 0 ? -1 : sd_bus_get_fd(mBus),
                         static_cast<short>(result < 0 ? 0 : sd_bus_get_events(mBus)), 0}};
    poll(polled, 2, -1);
    eventfd_t count = 0;
    if (polled[0].revents != 0) eventfd_read(mWake, &count);
  }
}
