// `proxymanagerctl pac test`: checks the answers of a PAC script against a file of cases.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `test` to the command `pac`. Parsing it sets `action`.
void addPacTest(CLI::App& pac, Action& action);

}  // namespace client
