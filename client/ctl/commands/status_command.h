// proxymanagerctl status: shows what is known about the daemon.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`. Parsing the command sets `action`.
void addStatusCommand(CLI::App& program, Action& action);

}  // namespace client
