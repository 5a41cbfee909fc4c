// proxymanagerctl get: shows the daemon's answers for URLs.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`. Parsing the command sets `action`.
void addGetCommand(CLI::App& program, Action& action);

}  // namespace client
