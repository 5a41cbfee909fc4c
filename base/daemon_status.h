// The status line that the daemon sends to its supervisor, where `proxymanagerctl status` reads it.
// Every user may read the line, so it has hosts and never whole URLs: a URL can hold a password.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace base {

/// Times are seconds since 1970; 0 if there was none since the daemon's start.
struct DaemonStatus {
  std::string mode;          ///< as on the bus; without blanks, commas and ";"
  std::int64_t updated = 0;  ///< when the last configuration was handed over
  std::int64_t script = 0;   ///< when a walk installed the script that answers now
  std::int64_t walked = 0;   ///< when the last walk ended
  std::string result;        ///< the result of the last walk; one line
  std::int64_t walking = 0;  ///< when the walk in progress began; 0 if there is none
};

/// For example "mode wpad, updated 2026-11-22T08:00:00Z; script of 2026-11-22T08:00:01Z; last walk
/// 2026-11-22T08:00:01Z: script from wpad.example". A walk in progress stands before the last one:
/// "; walking since 2026-11-22T08:00:07Z". Any thread.
std::string describe(const DaemonStatus& status);

/// @return the status of a line that describe() made; nothing for any other text. Any thread.
std::optional<DaemonStatus> parseDaemonStatus(std::string_view line);

}  // namespace base
