// proxymanagerctl config: the configuration in force.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`; running it sets `action`.
void addConfigCommand(CLI::App& program, Action& action);

}  // namespace client
