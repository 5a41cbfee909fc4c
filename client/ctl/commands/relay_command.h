// proxymanagerctl relay: makes proxymanager-relay the proxy of programs that read a fixed proxy
// setting.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`. Parsing the command sets `action`.
void addRelayCommand(CLI::App& program, Action& action);

}  // namespace client
