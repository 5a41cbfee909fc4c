// `proxymanagerctl pac`: tries PAC scripts out, without daemon or bus, for those who write them.
//
// The script runs as it would for the daemon: in the same library, the same sandboxed worker and
// under the same limits; what the daemon would make of the result is made by its own code. Only
// what a script can learn about the world may be given instead of being looked up: names, own
// addresses, the time and the zone.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `pac eval` and `pac check` to `program`. Parsing one of them sets `action`; what is wrong
/// with its arguments is thrown as CLI::ParseError.
void addPacCommand(CLI::App& program, Action& action);

}  // namespace client
