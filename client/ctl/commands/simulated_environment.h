// The script's view of the device, as options set it: names, own addresses, time and time zone.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/pac_engine.h"

namespace client {

/// The values of the options, as the user wrote them.
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

/// The options for the library. Throws CLI::ValidationError if an option is not valid. If --at has
/// no offset, it is in the zone of --tz. The process then stays in this zone.
pac_engine::Options engineOptions(const SimulatedEnvironment& environment);

}  // namespace client
