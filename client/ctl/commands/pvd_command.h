// `proxymanagerctl pvd`: reads and checks documents of proxy information by provisioning domain,
// and converts them to PAC scripts. It fetches only the given document, once.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `pvd show` and `pvd to-pac` to `program`. Parsing one of them sets `action`. A wrong
/// argument throws CLI::ParseError.
void addPvdCommand(CLI::App& program, Action& action);

}  // namespace client
