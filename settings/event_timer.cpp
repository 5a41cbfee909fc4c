#include "settings/event_timer.h"

#include <ctime>
#include <system_error>
#include <utility>

namespace settings {

namespace {
constexpr std::uint64_t kAccuracyUs = 250'000;
}

void require(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
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
  static_cast<EventTimer*>(self)->mFired();
  return 0;
}

}  // namespace settings
