// `proxymanagerctl pac lint`: finds what is probably wrong with a PAC script.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `lint` to the command `pac`. Parsing it sets `action`.
void addPacLint(CLI::App& pac, Action& action);

}  // namespace client
