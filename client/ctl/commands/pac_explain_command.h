// `proxymanagerctl pac explain`: which conditions, calls and return of a PAC script lead to an
// answer.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `explain` to the command `pac`. Parsing it sets `action`.
void addPacExplain(CLI::App& pac, Action& action);

}  // namespace client
