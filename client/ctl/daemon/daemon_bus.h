// Calls of the daemon over the system message bus.
//
// One object has one connection, and only one thread may use it. Every call has a time limit. Every
// error is a Failure whose text advises what to do (client/ctl/daemon/bus_failure.h).
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/daemon_status.h"
#include "client/library/proxy_answer.h"

namespace client {

/// The time limit for answers of the bus itself. The daemon uses the same limit for the bus. The
/// bus runs on this machine, so a silent bus is an error.
inline constexpr std::chrono::seconds kBusLimit{10};

/// Shortest time limit for a connection to the bus, even if the limit of the calls is shorter. A
/// handshake on a busy machine must not look like a silent bus.
inline constexpr std::chrono::seconds kLeastBusLimit{1};

/// The owner of the daemon's name.
struct Owner {
  std::string uniqueName;
  std::optional<std::int64_t> process;
  std::optional<std::uint32_t> user;
};

struct CallKind;

struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
struct MessageCloser {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct SlotCloser {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using BusHandle = std::unique_ptr<sd_bus, BusCloser>;
using Message = std::unique_ptr<sd_bus_message, MessageCloser>;
using Slot = std::unique_ptr<sd_bus_slot, SlotCloser>;

/// Connects to the bus at DBUS_SYSTEM_BUS_ADDRESS, or to the system's bus if this variable is not
/// set. The time limit is `limit`, but at least kLeastBusLimit and at most kBusLimit. Throws
/// Failure if there is no bus.
BusHandle openSystemBus(std::chrono::microseconds limit = kBusLimit);

class DaemonBus {
 public:
  using Limit = std::chrono::microseconds;
  /// A function that handles a signal. The message is valid during the call.
  using Listener = std::function<void(sd_bus_message*)>;

  /// Connects as openSystemBus() does.
  /// @param limit the time limit of each call; openSystemBus() describes the limit of the
  /// connection
  explicit DaemonBus(Limit limit);
  DaemonBus(const DaemonBus&) = delete;
  DaemonBus& operator=(const DaemonBus&) = delete;

  /// The connection, for calls to other services.
  sd_bus* handle() const { return mBus.get(); }

  /// Whether calls may start a daemon that does not run. The default is true.
  void startDaemon(bool may) { mMayStart = may; }

  /// This function and the next three call the daemon's methods. checkStarted() returns the
  /// daemon's answer, which is true while the daemon works.
  bool checkStarted();
  /// The answer for `url`. isBusText(url) must be true.
  ProxyAnswer ask(const std::string& url);
  Configuration configuration();
  /// `configuration.enableauth` is "y" or "n". @return the daemon's result: 0, or a negative number
  /// if the daemon has not accepted the configuration
  std::int32_t update(const Configuration& configuration);

  /// The state of the settings service (proxymanager-settings), as JSON. The call does not start
  /// that service. Throws Failure: kUnavailable if that service does not run.
  std::string settingsState();

  /// @return nothing if the daemon's name has no owner
  std::optional<Owner> owner();

  /// The status text that systemd shows for the service of the process `process`. @return nothing
  /// if there is no systemd on the bus, or no such service
  std::optional<std::string> serviceStatus(std::int64_t process);
  /// The status that `daemon` reported to systemd. @return nothing if systemd has no such status
  std::optional<base::DaemonStatus> reportedStatus(const Owner& daemon);

  /// Calls `listener` for each signal that matches `rule`, during waitFor() and runUntil(), as long
  /// as this object exists. waitFor() and runUntil() pass on exceptions of `listener`. listen()
  /// returns when the bus has accepted the rule.
  void listen(const std::string& rule, Listener listener);

  /// Handles arriving messages until `done` returns true or `limit` is over. @return whether `done`
  /// returned true
  bool waitFor(const std::function<bool()>& done, Limit limit);

  /// Handles arriving messages until `descriptor` can be read, without a time limit.
  void runUntil(int descriptor);

 private:
  struct Listening {
    Listener listener;
    std::exception_ptr thrown;
    Slot slot;
  };

  static int handOn(sd_bus_message* message, void* listening, sd_bus_error* error);
  Message newCall(const char* member) const;
  Message call(const CallKind& kind, const Message& message);
  Message askBus(const char* member);
  Message askSystemd(sd_bus_message* message);
  /// Handles one message that has arrived. @return false if there was none
  bool process();

  Limit mLimit;
  bool mMayStart = true;
  BusHandle mBus;
  std::vector<std::unique_ptr<Listening>> mListening;
};

/// The match rule for the signal `member` of the daemon's interface. If `member` is null, the rule
/// is for all its signals.
std::string signalRule(const char* member);

/// The match rule for the bus's signal about a start or an end of the daemon.
std::string ownerRule();

}  // namespace client
