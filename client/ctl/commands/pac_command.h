// `proxymanagerctl pac`: tries out PAC scripts without the daemon and the bus, for authors of
// scripts.
//
// The script runs as in the daemon: in the same library and the same sandboxed worker, with the
// same limits. The daemon's own code parses the result. Options change only the script's view of
// the device: names, own addresses, time and time zone.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `pac eval` and `pac check` to `program`. Parsing one of them sets `action`. A wrong
/// argument throws CLI::ParseError.
void addPacCommand(CLI::App& program, Action& action);

}  // namespace client
