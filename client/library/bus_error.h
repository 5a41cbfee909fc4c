// What the errors of the message bus mean: the one table of their names.
#pragma once

#include <cerrno>
#include <string_view>

namespace client {

enum class BusError {
  kNotRunning,   ///< nobody has the daemon's name
  kCannotStart,  ///< the bus was asked to start the daemon and could not
  kEnded,        ///< the daemon ended before it answered
  kDenied,       ///< the bus does not allow it
  kTimedOut,     ///< given up by the caller's own clock
  kBusy,         ///< the bus has no room for it
  kLost,         ///< the connection to the bus ended
  kUnknown,      ///< the daemon does not send it
};

/// What the error `name`, "org.freedesktop.DBus.Error.NoReply", means.
BusError busErrorOf(std::string_view name);

/// Whether connecting failed with this errno value because the bus does not let the user in. A bus
/// that refuses a user ends the connection without a word, so a connection that ends counts, too.
constexpr bool isDenial(int error) {
  return error == EACCES || error == EPERM || error == ECONNRESET || error == EPIPE ||
         error == ENOTCONN;
}

}  // namespace client
