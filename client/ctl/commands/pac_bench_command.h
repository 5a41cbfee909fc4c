// `proxymanagerctl pac bench`: measures the cost of a PAC script for a list of URLs.
#pragma once

#include <CLI/App.hpp>

#include "client/ctl/commands/command.h"

namespace client {

/// Adds `bench` to the command `pac`. Parsing it sets `action`.
void addPacBench(CLI::App& pac, Action& action);

}  // namespace client
