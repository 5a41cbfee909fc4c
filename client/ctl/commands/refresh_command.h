// proxymanagerctl refresh: sends the configuration to the daemon again.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`. Parsing the command sets `action`.
void addRefreshCommand(CLI::App& program, Action& action);

}  // namespace client
