// proxymanagerctl status: what is known of the daemon.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`; running it sets `action`.
void addStatusCommand(CLI::App& program, Action& action);

}  // namespace client
