// proxymanagerctl diagnose: tries every entry of an answer.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds the command to `program`. Parsing the command sets `action`.
void addDiagnoseCommand(CLI::App& program, Action& action);

}  // namespace client
