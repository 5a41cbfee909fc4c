// The script that a command works on: a file, or the script that the daemon has fetched.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace client {

struct ChosenScript {
  std::string file;
  std::string option;  ///< FILE, if the option -p gives it
  bool isCurrent = false;
};

/// Adds FILE to `command`, and -p, the name of this option in other testers of scripts. `chosen`
/// must live as long as `command`.
void addScriptFile(CLI::App& command, ChosenScript& chosen);

/// Adds --current.
void addCurrentScript(CLI::App& command, ChosenScript& chosen);

/// Call it after the command line has been parsed. Throws the parser's error if there is no script.
/// @return the word in the place of FILE if -p or --current selects the script, else nothing
std::vector<std::string> settleScript(ChosenScript& chosen);

/// The same for a command whose only argument is FILE.
void settleOnlyScript(ChosenScript& chosen);

/// Throws the parser's error if both the script and `file`, the list of URLs, are standard input.
void checkStandardInput(const ChosenScript& chosen, const std::string& file);

/// The bytes of the script. Throws Failure as readScript() does.
std::string readChosenScript(const ChosenScript& chosen);

}  // namespace client
