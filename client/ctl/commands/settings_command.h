// "proxymanagerctl settings": what the settings service does and why, and the end of what was
// saved.
#pragma once

#include "client/ctl/commands/command.h"

namespace CLI {
class App;
}

namespace client {

/// Adds "settings" and "settings reset".
void addSettingsCommand(CLI::App& program, Action& action);

}  // namespace client
