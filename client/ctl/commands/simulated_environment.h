// The script's view of the device, as options set it: names, own addresses, time and time zone.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/pac_engine.h"

namespace client {

/// The options as written.
struct SimulatedEnvironment {
  std::optional<std::string> time;          ///< --at
  std::optional<std::string> zone;          ///< --tz
  std::vector<std::string> names;           ///< --resolve
  std::optional<std::string> ownAddresses;  ///< --my-ip
  bool offline = false;                     ///< --offline
};

/// Adds --at, --tz, --resolve, --my-ip and --offline to `command`. They set `environment`, which
/// must live as long as `command`.
void addEnvironmentOptions(CLI::App& command, SimulatedEnvironment& environment);

/// The options for the library. Throws CLI::ValidationError if an option is not valid. If a time
/// has no offset, the process stays in the zone of that time.
pac_engine::Options engineOptions(const SimulatedEnvironment& environment);

}  // namespace client
