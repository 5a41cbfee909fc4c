#include "platform/process/supervisor.h"

#include <systemd/sd-daemon.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "base/log_line.h"

namespace {

int notify(const std::string& state) {
  // The argument 0 keeps the environment variables, because every notification needs them.
  const int result = sd_notify(0, state.c_str());
  if (result >= 0) return 0;
  logLine(LOG_ERR, "process: cannot tell the supervisor: %s", std::strerror(-result));
  return -1;
}

void checkWatchdogInterval() {
  std::uint64_t limit = 0;
  if (sd_watchdog_enabled(0, &limit) <= 0) return;
  const std::chrono::microseconds least = 2 * kWatchdogFeedInterval;
  if (limit >= static_cast<std::uint64_t>(least.count())) return;
  logLine(LOG_WARNING, "process: the watchdog's %llu ms are too few, it is fed every %lld s",
          static_cast<unsigned long long>(limit / 1000),
          static_cast<long long>(kWatchdogFeedInterval.count()));
}

}  // namespace

int restart_connect(const char* name) {
  checkWatchdogInterval();
  return notify(std::string("READY=1\nSTATUS=") + (name == nullptr ? "" : name) + " runs");
}

int feedWatchdog() {
  return sd_watchdog_enabled(0, nullptr) > 0 ? notify("WATCHDOG=1") : 0;
}

int notifyStopping() {
  return notify("STOPPING=1");
}

int notifyStatus(const std::string& text) {
  return notify("STATUS=" + text);
}
