// `proxymanagerctl pac diff`: shows for which URLs two PAC scripts answer differently.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `diff` to the command `pac`. Parsing it sets `action`.
void addPacDiff(CLI::App& pac, Action& action);

}  // namespace client
