// The meanings of the message bus's errors, with the only table of their names.
#pragma once

#include <cerrno>
#include <string_view>

namespace client {

enum class BusError {
  kNotRunning,   ///< the daemon's name has no owner
  kCannotStart,  ///< the bus was asked to start the daemon and could not
  kEnded,        ///< the daemon ended before it answered
  kDenied,       ///< the bus does not allow the call or connection
  kTimedOut,     ///< the caller's own time limit is over
  kBusy,         ///< the bus has no room for one more connection or message
  kLost,         ///< the connection to the bus ended
  kUnknown,      ///< any other error
};

/// The meaning of the error `name`, such as "org.freedesktop.DBus.Error.NoReply".
BusError busErrorOf(std::string_view name);

/// Whether this errno value of a failed connection means that the bus refuses the user. If the bus
/// refuses a user, it just closes the connection, so a closed connection counts, too.
constexpr bool isDenial(int error) {
  return error == EACCES || error == EPERM || error == ECONNRESET || error == EPIPE ||
         error == ENOTCONN;
}

/// The errno value `error` of a failed connection to the bus at `address`, corrected for TCP. For
/// TCP, sd-bus does not read why a connection failed, so a port without a listener looks like a
/// connection that the bus has closed. The port without a listener is more probable.
constexpr int connectionError(std::string_view address, int error) {
  const bool isClosed = isDenial(error) && error != EACCES && error != EPERM;
  return isClosed && address.starts_with("tcp:") ? ECONNREFUSED : error;
}

}  // namespace client
