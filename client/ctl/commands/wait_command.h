// proxymanagerctl wait: waits until the daemon is ready, for boot order.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`. Parsing the command sets `action`.
void addWaitCommand(CLI::App& program, Action& action);

}  // namespace client
