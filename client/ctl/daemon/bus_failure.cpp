#include "client/ctl/daemon/bus_failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "client/library/bus_error.h"

namespace client {

namespace {

constexpr std::array<std::string_view, 4> kTransports{
    "unix:", "tcp:", "unixexec:", "x-machine-unix:"};

bool hasTransport(std::string_view address) {
  return std::any_of(kTransports.begin(), kTransports.end(), [&](std::string_view transport) {
    return address.starts_with(transport) ||
           address.find(';' + std::string(transport)) != std::string_view::npos;
  });
}

std::string messageOf(std::string_view name, std::string_view text) {
  return std::string(text.empty() ? name : text);
}

}  // namespace

std::string secondsText(std::chrono::microseconds time) {
  std::array<char, 64> text{};
  snprintf(text.data(), text.size(), "%.6g s", std::chrono::duration<double>(time).count());
  return text.data();
}

Failure failedCall(const CallKind& call, std::string_view name, std::string_view text,
                   std::chrono::microseconds limit) {
  switch (busErrorOf(name)) {
    case BusError::kNotRunning:
      return {kUnavailable, std::string("proxymanagerd does not run; ") + kStartIt};
    case BusError::kCannotStart:
      return {kUnavailable, "proxymanagerd does not run and the bus cannot start it (" +
                                messageOf(name, text) + "); " + kStartIt};
    case BusError::kDenied:
      return {kDenied, std::string("not allowed to ") + call.purpose +
                           "; root may, and so may members of the group proxymanager"};
    case BusError::kTimedOut:
      return {kTryAgain,
              "proxymanagerd has not answered within " + secondsText(limit) +
                  ", maybe because it loads a script; " +
                  (call.changes ? "the change may still be made, look with "
                                  "\"proxymanagerctl config\", or give it more time with "
                                  "--timeout"
                                : "try again, or give it more time with --timeout")};
    case BusError::kEnded:
      return {kUnavailable,
              "proxymanagerd ended before it answered; look why with \"journalctl -t "
              "proxymanager_service\" and try again"};
    case BusError::kBusy:
      return {kTryAgain,
              "the message bus is too busy (" + messageOf(name, text) + "); try again later"};
    case BusError::kLost:
      return lostConnection();
    case BusError::kUnknown:
      break;
  }
  return {kProtocol, "the program that owns the name of proxymanagerd cannot do this (" +
                         messageOf(name, text) +
                         "); look who it is with \"busctl status com.zentu.ProxyManagerService\""};
}

Failure failedSettingsCall(std::string_view name, std::string_view text,
                           std::chrono::microseconds limit) {
  switch (busErrorOf(name)) {
    case BusError::kNotRunning:
    case BusError::kCannotStart:
    case BusError::kEnded:
      return {kUnavailable,
              "proxymanager-settings does not run; start it, for instance with \"systemctl start "
              "proxymanager-settings\""};
    case BusError::kTimedOut:
      return {kTryAgain, "proxymanager-settings has not answered within " + secondsText(limit) +
                             "; try again, or give it more time with --timeout"};
    case BusError::kLost:
      return lostConnection();
    default:
      return {kProtocol,
              "the program that owns the name of proxymanager-settings cannot do this (" +
                  messageOf(name, text) + ")"};
  }
}

Failure failedConnection(std::string_view address, int error) {
  // If the bus library supports no transport of the address, it skips all of them and returns
  // ECONNREFUSED.
  if (error == ECONNREFUSED && !hasTransport(address)) error = EINVAL;
  error = connectionError(address, error);
  const auto reason = std::generic_category().message(error);
  const auto bus = "the message bus at " + std::string(address);
  if (isDenial(error)) {
    const bool isSaid = error == EACCES || error == EPERM;
    return {kDenied, bus + " does not let this user in (" +
                         (isSaid ? reason : "it ends the connection") + "); try as another"};
  }
  switch (error) {
    case ETIMEDOUT:
      return {kTryAgain, bus + " does not answer; try again, or restart it"};
    case EINVAL:
    case E2BIG:
    case ENAMETOOLONG:
      return {kUsage, std::string(address) +
                          " is no address of a message bus; look at DBUS_SYSTEM_BUS_ADDRESS"};
    default:
      return {kUnavailable, "there is no message bus at " + std::string(address) + " (" + reason +
                                "); start it, or name another in DBUS_SYSTEM_BUS_ADDRESS"};
  }
}

Failure lostConnection() {
  return {kUnavailable, "the connection to the message bus is lost; try again when it is back"};
}

Failure endingDaemon() {
  return {kTryAgain,
          "proxymanagerd is about to end and does nothing more; try again when it is back"};
}

Failure wrongReply() {
  return failedCall({"", false}, "org.freedesktop.DBus.Error.InconsistentMessage",
                    "its reply has another form", {});
}

}  // namespace client
