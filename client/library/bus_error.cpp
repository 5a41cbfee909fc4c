#include "client/library/bus_error.h"

#include <array>

namespace client {

namespace {

struct Row {
  std::string_view name;  ///< the part after kPrefix; if it ends with ".", it stands for all names
                          ///< that begin with it
  BusError meaning;
};

constexpr std::string_view kPrefix = "org.freedesktop.DBus.Error.";

// The bus sends TimedOut if the daemon does not start in time, and NoReply if the daemon does not
// answer a call. Timeout comes from this library.
constexpr std::array kRows{
    Row{"ServiceUnknown", BusError::kNotRunning},
    Row{"NameHasNoOwner", BusError::kNotRunning},
    Row{"Spawn.", BusError::kCannotStart},
    Row{"TimedOut", BusError::kCannotStart},
    Row{"NoReply", BusError::kEnded},
    Row{"AccessDenied", BusError::kDenied},
    Row{"AuthFailed", BusError::kDenied},
    Row{"Timeout", BusError::kTimedOut},
    Row{"LimitsExceeded", BusError::kBusy},
    Row{"NoMemory", BusError::kBusy},
    Row{"Disconnected", BusError::kLost},
    Row{"NoServer", BusError::kLost},
};

}  // namespace

BusError busErrorOf(std::string_view name) {
  // The bus asks systemd to start the daemon, and passes on an error of systemd.
  if (name.starts_with("org.freedesktop.systemd1.")) return BusError::kCannotStart;
  if (!name.starts_with(kPrefix)) return BusError::kUnknown;
  name.remove_prefix(kPrefix.size());
  for (const auto& row : kRows) {
    if (row.name.ends_with('.') ? name.starts_with(row.name) : name == row.name) return row.meaning;
  }
  return BusError::kUnknown;
}

}  // namespace client
