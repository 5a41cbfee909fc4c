// `proxymanagerctl pac cover`: shows which parts of a PAC script a list of URLs reaches.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `cover` to the command `pac`. Parsing it sets `action`.
void addPacCover(CLI::App& pac, Action& action);

}  // namespace client
