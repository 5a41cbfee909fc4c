// A failure on the bus, as one line that also advises what to do.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "client/ctl/failure.h"

namespace client {

/// The facts about a call that messages need.
struct CallKind {
  const char* purpose;  ///< follows "not allowed to"
  bool changes;         ///< the daemon may still carry out the call after the time limit
};

/// The reason why a call has no answer. `name` and `text` are the name and text of the error;
/// `limit` is the time limit of the call. A pure function.
Failure failedCall(const CallKind& call, std::string_view name, std::string_view text,
                   std::chrono::microseconds limit);

/// The same for a question to the settings service.
Failure failedSettingsCall(std::string_view name, std::string_view text,
                           std::chrono::microseconds limit);

/// The error name for a call whose time limit is over; the bus itself never sends this name.
inline constexpr std::string_view kGivenUp = "org.freedesktop.DBus.Error.Timeout";

/// Describes why there is no connection to the bus at `address`. `error` is an errno.
Failure failedConnection(std::string_view address, int error);

/// The connection ended while it was used.
Failure lostConnection();

/// The daemon is ending: it answered, but has no service any more.
Failure endingDaemon();

/// The reply does not have the form of the interface.
Failure wrongReply();

/// Advice if the daemon does not run.
inline constexpr const char* kStartIt =
    "start it, for instance with \"systemctl start proxymanagerd\"";

/// "1.5 s"
std::string secondsText(std::chrono::microseconds time);

}  // namespace client
