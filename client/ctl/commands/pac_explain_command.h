// `proxymanagerctl pac explain`: shows the conditions, calls and return of a PAC script that lead
// to an answer.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `explain` to the command `pac`. Parsing it sets `action`.
void addPacExplain(CLI::App& pac, Action& action);

}  // namespace client
