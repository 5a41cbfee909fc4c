// "proxymanagerctl settings" shows what the settings service does and why. "proxymanagerctl
// settings reset" removes the saved settings.
#pragma once

#include "client/ctl/commands/command.h"

namespace CLI {
class App;
}

namespace client {

/// Adds "settings" and "settings reset".
void addSettingsCommand(CLI::App& program, Action& action);

}  // namespace client
