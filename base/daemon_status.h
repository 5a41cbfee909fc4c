// The status line that the daemon sends to its supervisor. `proxymanagerctl status` reads the line
// from the supervisor. Every user may read the line. A URL can contain a password, so the line
// contains hosts and never whole URLs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace base {

/// Times are in seconds since 1970. A time is 0 if its event has not happened since the daemon's
/// start.
struct DaemonStatus {
  std::string mode;          ///< the mode's name on the bus; contains no blank, comma or ";"
  std::int64_t updated = 0;  ///< when the daemon got its last configuration
  std::int64_t script = 0;   ///< when a walk (a search for a script) installed the script in use
  std::int64_t walked = 0;   ///< when the last walk ended
  std::string result;        ///< the result of the last walk; one line
  std::int64_t walking = 0;  ///< when the walk in progress began; 0 if none is in progress
};

/// For example "mode wpad, updated 2026-11-22T08:00:00Z; script of 2026-11-22T08:00:01Z; last walk
/// 2026-11-22T08:00:01Z: script from wpad.example". If a walk is in progress, its part comes before
/// the part of the last walk: "; walking since 2026-11-22T08:00:07Z". Any thread.
std::string describe(const DaemonStatus& status);

/// @return the status in a line that describe() made; nothing for any other text. Any thread.
std::optional<DaemonStatus> parseDaemonStatus(std::string_view line);

}  // namespace base
