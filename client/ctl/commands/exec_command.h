// proxymanagerctl exec: a command that is told of the proxy for a URL.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

#include "client/ctl/commands/command.h"

namespace client {

/// A command line of this program, and the one of another program in it.
struct CommandLine {
  std::vector<std::string> own;  ///< without the name of the program
  std::vector<std::string> other;
  bool hasOther = false;  ///< whether there was a "--" before it
};

/// The arguments, put in the order of the grammar: "help COMMAND" is "COMMAND --help", and --json
/// may stand before the command. Of the command exec, all that follows the first "--" belongs to
/// the other program, whose options are its own affair.
CommandLine splitCommandLine(int argc, const char* const* argv);

/// Adds the command to `program`; running it sets `action`. `line` lives as long as the program.
void addExecCommand(CLI::App& program, Action& action, const CommandLine& line);

}  // namespace client
