// proxymanagerctl relay: makes proxymanager-relay the proxy of programs that read a fixed one.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`; running it sets `action`.
void addRelayCommand(CLI::App& program, Action& action);

}  // namespace client
