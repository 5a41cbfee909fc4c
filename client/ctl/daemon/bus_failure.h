// A failure on the bus, as one line that also advises what to do.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "client/ctl/failure.h"

namespace client {

/// The properties of a call that its failure messages depend on.
struct CallKind {
  const char* purpose;  ///< what the call does: the end of the message "not allowed to ..."
  bool changes;         ///< the daemon may still carry out the call after the time limit
};

/// The reason why a call has no answer. `name` and `text` are the name and text of the error;
/// `limit` is the time limit of the call. A pure function.
Failure failedCall(const CallKind& call, std::string_view name, std::string_view text,
                   std::chrono::microseconds limit);

/// The reason why a call of the settings service has no answer.
Failure failedSettingsCall(std::string_view name, std::string_view text,
                           std::chrono::microseconds limit);

/// The error name for a call whose time limit is over; the bus itself never sends this name.
inline constexpr std::string_view kGivenUp = "org.freedesktop.DBus.Error.Timeout";

/// Describes why there is no connection to the bus at `address`. `error` is an errno.
Failure failedConnection(std::string_view address, int error);

/// The failure if the connection to the bus has ended while it was used.
Failure lostConnection();

/// The failure if the daemon answers, but only to report that it is about to end.
Failure endingDaemon();

/// The failure if a reply does not have the form that the daemon's interface defines.
Failure wrongReply();

/// Advice if the daemon does not run.
inline constexpr const char* kStartIt =
    "start it, for instance with \"systemctl start proxymanagerd\"";

/// The time as a text: "1.5 s".
std::string secondsText(std::chrono::microseconds time);

}  // namespace client
