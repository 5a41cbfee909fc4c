#include "settings/event_timer.h"

#include <cstdlib>
#include <ctime>
#include <exception>
#include <system_error>
#include <utility>

#include "base/log_line.h"

namespace settings {

namespace {
constexpr std::uint64_t kAccuracyUs = 250'000;
}

void require(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

int guarded(sd_event* event, const std::function<void()>& action) noexcept {
  try {
    action();
  } catch (const std::exception& failure) {
    logLine(LOG_ERR, "settings: cannot go on, ending: %s", failure.what());
    sd_event_exit(event, EXIT_FAILURE);
  }
  return 0;
}

EventTimer::EventTimer(sd_event* event, std::function<void()> fired)
    : mEvent(event), mFired(std::move(fired)) {
  sd_event_source* source = nullptr;
  require(sd_event_add_time(mEvent, &source, CLOCK_MONOTONIC, 0, kAccuracyUs, onTime, this),
          "sd_event_add_time");
  mSource.reset(source);
  require(sd_event_source_set_enabled(source, SD_EVENT_OFF), "sd_event_source_set_enabled");
}

void EventTimer::set(std::chrono::milliseconds pause) {
  const auto microseconds = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(pause).count());
  require(sd_event_source_set_time_relative(mSource.get(), microseconds),
          "sd_event_source_set_time_relative");
  require(sd_event_source_set_enabled(mSource.get(), SD_EVENT_ONESHOT),
          "sd_event_source_set_enabled");
}

void EventTimer::cancel() {
  require(sd_event_source_set_enabled(mSource.get(), SD_EVENT_OFF), "sd_event_source_set_enabled");
}

bool EventTimer::isSet() const {
  int enabled = SD_EVENT_OFF;
  sd_event_source_get_enabled(mSource.get(), &enabled);
  return enabled != SD_EVENT_OFF;
}

int EventTimer::onTime(sd_event_source*, std::uint64_t, void* self) {
  const auto& timer = *static_cast<const EventTimer*>(self);
  return guarded(timer.mEvent, timer.mFired);
}

}  // namespace settings
