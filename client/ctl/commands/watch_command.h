// proxymanagerctl watch: prints each signal of the daemon when it arrives.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`. Parsing the command sets `action`.
void addWatchCommand(CLI::App& program, Action& action);

}  // namespace client
