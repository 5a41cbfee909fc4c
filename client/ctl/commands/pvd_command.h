// `proxymanagerctl pvd`: reads documents of proxy information by provisioning domain, judges them,
// and makes PAC scripts of them. Nothing is fetched but the document that is named, once.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `pvd show` and `pvd to-pac` to `program`. Parsing one of them sets `action`; what is wrong
/// with its arguments is thrown as CLI::ParseError.
void addPvdCommand(CLI::App& program, Action& action);

}  // namespace client
