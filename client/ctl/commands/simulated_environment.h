// The view of the device that options give to a script on trial: names, own addresses, time and
// zone.
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

/// Adds --at, --tz, --resolve, --my-ip and --offline to `command`; they fill `environment`, which
/// lives as long as the command.
void addEnvironmentOptions(CLI::App& command, SimulatedEnvironment& environment);

/// The options of the library. Throws CLI::ValidationError if an option makes no sense. If a time
/// is written without an offset, the process stays in the zone of that time.
pac_engine::Options engineOptions(const SimulatedEnvironment& environment);

}  // namespace client
