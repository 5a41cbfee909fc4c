// proxymanagerctl exec: runs another program with the proxy for a URL in its environment.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

#include "client/ctl/commands/command.h"

namespace client {

/// A command line of this program, which may contain the command line of another program.
struct CommandLine {
  std::vector<std::string> own;  ///< without the program's name
  std::vector<std::string> other;
  bool hasOther = false;  ///< whether a "--" came before `other`
  bool isHelp = false;    ///< whether the command line was "help COMMAND"
};

/// Puts the arguments in the order of the grammar. "help COMMAND" becomes "COMMAND --help", and
/// --json may come before the command. With the command exec, everything after the first "--"
/// belongs to the other program and is not parsed.
CommandLine splitCommandLine(int argc, const char* const* argv);

/// Adds the command to `program`. Parsing the command sets `action`. `line` must live as long as
/// `program`.
void addExecCommand(CLI::App& program, Action& action, const CommandLine& line);

}  // namespace client
