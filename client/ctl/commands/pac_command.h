// `proxymanagerctl pac`: tries PAC scripts out, without daemon or bus, for those who write them.
//
// The script runs as in the daemon: in the same library and the same sandboxed worker, with the
// same limits. The daemon's own code parses the result. Only the script's view of the device can be
// set instead of being looked up: names, own addresses, the time and the zone.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `pac eval` and `pac check` to `program`. Parsing one of them sets `action`; what is wrong
/// with its arguments is thrown as CLI::ParseError.
void addPacCommand(CLI::App& program, Action& action);

}  // namespace client
