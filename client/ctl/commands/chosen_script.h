// The script that a command works on: a file, or the script that the daemon has fetched.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace client {

struct ChosenScript {
  std::string file;
  std::string option;  ///< the file that the option -p names
  bool isCurrent = false;
};

/// Adds the argument FILE and the option -p to `command`. Other programs that test scripts use -p
/// for the script. `chosen` must live as long as `command`.
void addScriptFile(CLI::App& command, ChosenScript& chosen);

/// Adds --current.
void addCurrentScript(CLI::App& command, ChosenScript& chosen);

/// Sets the file of the script from FILE, -p and --current. Call this function after the command
/// line has been parsed. Throws the parser's error if there is no script.
/// @return the argument in the place of FILE if -p or --current selects the script; else an empty
/// list
std::vector<std::string> settleScript(ChosenScript& chosen);

/// Does the same for a command whose only argument is FILE.
void settleOnlyScript(ChosenScript& chosen);

/// `file` is the list of URLs. Throws the parser's error if both the script and this list would
/// come from standard input.
void checkStandardInput(const ChosenScript& chosen, const std::string& file);

/// The bytes of the script. Throws Failure as readScript() does.
std::string readChosenScript(const ChosenScript& chosen);

}  // namespace client
