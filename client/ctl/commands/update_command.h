// proxymanagerctl off, manual, pacurl and wpad: change the configuration.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the commands to `program`; running one sets `action`.
void addUpdateCommands(CLI::App& program, Action& action);

}  // namespace client
