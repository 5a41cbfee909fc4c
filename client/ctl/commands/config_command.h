// proxymanagerctl config: shows the daemon's configuration.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`. Parsing the command sets `action`.
void addConfigCommand(CLI::App& program, Action& action);

}  // namespace client
