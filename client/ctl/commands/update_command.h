// proxymanagerctl off, manual, pacurl and wpad: change the configuration.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the commands to `program`. Parsing one of them sets `action`.
void addUpdateCommands(CLI::App& program, Action& action);

}  // namespace client
