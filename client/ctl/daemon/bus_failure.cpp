#include "client/ctl/daemon/bus_failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace client {

namespace {

constexpr std::string_view kErrors = "org.freedesktop.DBus.Error.";

bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  if (!name.starts_with(kErrors)) return false;
  name.remove_prefix(kErrors.size());
  return std::find(names.begin(), names.end(), name) != names.end();
}

/// The bus was asked to start the daemon and could not.
bool isFailedStart(std::string_view name) {
  return name.starts_with("org.freedesktop.DBus.Error.Spawn.") ||
         name.starts_with("org.freedesktop.systemd1.") || isOneOf(name, {"TimedOut"});
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

Failure failedCall(const CallNature& call, std::string_view name, std::string_view text,
                   std::chrono::microseconds limit) {
  if (isOneOf(name, {"ServiceUnknown", "NameHasNoOwner"})) {
    return {kUnavailable, std::string("proxymanagerd does not run; ") + kStartIt};
  }
  if (isFailedStart(name)) {
    return {kUnavailable, "proxymanagerd does not run and the bus cannot start it (" +
                              messageOf(name, text) + "); " + kStartIt};
  }
  if (isOneOf(name, {"AccessDenied", "AuthFailed"})) {
    return {kDenied, std::string("not allowed to ") + call.purpose +
                         "; root may, and so may members of the group proxymanager"};
  }
  if (name == kGivenUp) {
    return {kTryAgain, "proxymanagerd has not answered within " + secondsText(limit) +
                           ", maybe as it waits for a download; " +
                           (call.changes ? "the change may still be made, look with "
                                           "\"proxymanagerctl config\", or give it more time with "
                                           "--timeout"
                                         : "try again, or give it more time with --timeout")};
  }
  if (isOneOf(name, {"NoReply"})) {
    return {kUnavailable,
            "proxymanagerd ended before it answered; look why with \"journalctl -t "
            "proxymanager_service\" and try again"};
  }
  if (isOneOf(name, {"LimitsExceeded", "NoMemory"})) {
    return {kTryAgain,
            "the message bus is too busy (" + messageOf(name, text) + "); try again later"};
  }
  if (isOneOf(name, {"Disconnected", "NoServer"})) return lostConnection();
  return {kProtocol, "what has the name of proxymanagerd cannot do this (" + messageOf(name, text) +
                         "); look who it is with \"busctl status com.zentu.ProxyManagerService\""};
}

Failure failedConnection(std::string_view address, int error) {
  const auto reason = std::generic_category().message(error);
  const auto bus = "the message bus at " + std::string(address);
  switch (error) {
    case EACCES:
    case EPERM:
      return {kDenied, bus + " does not let this user in (" + reason + "); try as another"};
    case ECONNRESET:  // one that is there lets a user go on who may, and says no word to others
    case EPIPE:
    case ENOTCONN:
      return {kDenied, bus + " does not let this user in (it ends the connection); try as another"};
    case ETIMEDOUT:
      return {kTryAgain, bus + " does not answer; try again, or start it anew"};
    case EINVAL:
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
