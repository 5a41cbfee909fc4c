#include "relay/daemon_report.h"

#include <pthread.h>
#include <systemd/sd-bus.h>

#include <csignal>
#include <string>
#include <system_error>
#include <thread>

#include "base/bus_names.h"

namespace relay {

namespace {

constexpr const char* kSystemd = "org.freedesktop.systemd1";

struct Closer {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
  void operator()(sd_bus_creds* creds) const { sd_bus_creds_unref(creds); }
};
template <typename Kind>
using Held = std::unique_ptr<Kind, Closer>;

/// @return the status line that the owner of the daemon's bus name has sent to systemd
std::optional<base::DaemonStatus> ask() {
  sd_bus* opened = nullptr;
  if (sd_bus_open_system(&opened) < 0) return std::nullopt;
  const Held<sd_bus> bus(opened);
  sd_bus_set_method_call_timeout(
      opened, static_cast<std::uint64_t>(std::chrono::microseconds(kReportTime).count()));
  sd_bus_creds* found = nullptr;
  if (sd_bus_get_name_creds(opened, base::kBusName, SD_BUS_CREDS_PID, &found) < 0) {
    return std::nullopt;
  }
  const Held<sd_bus_creds> creds(found);
  pid_t process = 0;
  if (sd_bus_creds_get_pid(found, &process) < 0) return std::nullopt;
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(opened, kSystemd, "/org/freedesktop/systemd1",
                         "org.freedesktop.systemd1.Manager", "GetUnitByPID", nullptr, &reply, "u",
                         static_cast<std::uint32_t>(process)) < 0) {
    return std::nullopt;
  }
  const Held<sd_bus_message> unit(reply);
  const char* path = nullptr;
  if (sd_bus_message_read_basic(reply, 'o', &path) <= 0) return std::nullopt;
  char* line = nullptr;
  if (sd_bus_get_property_string(opened, kSystemd, path, "org.freedesktop.systemd1.Service",
                                 "StatusText", nullptr, &line) < 0) {
    return std::nullopt;
  }
  const std::unique_ptr<char, decltype(&free)> text(line, free);
  return base::parseDaemonStatus(line);
}

}  // namespace

void DaemonReport::start() {
  // All signals are blocked in the new thread, because only the main thread may receive signals.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread([this] {
      pthread_setname_np(pthread_self(), "pm-report");
      asio::post(mLoop, [this, status = ask()] {
        const auto asked = std::move(mAsked);
        asked->status = status;
        asked->isDone = true;
        for (auto* const event : asked->events) event->happen();
      });
    }).detach();
  } catch (const std::system_error&) {
    mAsked->isDone = true;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Task<std::optional<base::DaemonStatus>> DaemonReport::read() {
  if (mAsked == nullptr) {
    mAsked = std::make_shared<Question>();
    start();
  }
  const auto asked = mAsked;
  if (asked->isDone) {  // no thread could be started
    mAsked.reset();
    co_return std::nullopt;
  }
  Event done(mLoop);
  asked->events.push_back(&done);
  co_await done.wait(kReportTime);
  std::erase(asked->events, &done);
  co_return asked->status;
}

}  // namespace relay
