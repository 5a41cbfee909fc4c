// What a PAC script tried out shall take for the environment: names, own addresses, time and zone.
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

/// What the library is to be told. Throws CLI::ValidationError for what makes no sense. Leaves the
/// process in the zone of a time that is written without an offset.
pac_engine::Options engineOptions(const SimulatedEnvironment& environment);

}  // namespace client
