// A timer of the event loop that fires once.
#pragma once

#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>

namespace settings {

struct EventSourceCloser {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using EventSource = std::unique_ptr<sd_event_source, EventSourceCloser>;

/// Throws std::system_error if an sd-event or sd-bus call returned a negative errno.
void require(int result, const char* what);

/// Runs `action` for a callback of the event loop. No exception may pass through the callback, so
/// an exception is logged and ends the loop with status 1. Then the supervisor starts the service
/// again: this is better than a service that has made half of a change. @return 0
int guarded(sd_event* event, const std::function<void()>& action) noexcept;

/// Only the thread of the event loop may use a timer. The loop must outlive the timer.
class EventTimer {
 public:
  /// @param fired called in the loop through guarded(), each time the timer runs out
  EventTimer(sd_event* event, std::function<void()> fired);

  /// Fires once after `pause`. A new setting replaces the earlier one. The clock is CLOCK_MONOTONIC
  /// with an accuracy of 250 ms, so that the kernel can combine wake-ups.
  void set(std::chrono::milliseconds pause);
  void cancel();
  bool isSet() const;

 private:
  static int onTime(sd_event_source*, std::uint64_t, void* self);

  sd_event* mEvent;
  std::function<void()> mFired;
  EventSource mSource;
};

}  // namespace settings
