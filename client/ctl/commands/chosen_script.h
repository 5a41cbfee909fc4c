// The script that a command is about: a file, or the one that the daemon has fetched.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace client {

struct ChosenScript {
  std::string file;
  std::string option;  ///< FILE as the option -p has it
  bool isCurrent = false;
};

/// Adds FILE to `command`, and -p, the name that other testers of scripts have for it. `chosen`
/// lives as long as the command.
void addScriptFile(CLI::App& command, ChosenScript& chosen);

/// Adds --current.
void addCurrentScript(CLI::App& command, ChosenScript& chosen);

/// To be called when the command line is parsed. Throws the parser's error if there is no script.
/// @return the word in the place of FILE if -p or --current names the script, else nothing
std::vector<std::string> settleScript(ChosenScript& chosen);

/// The same for a command that takes no argument but FILE.
void settleOnlyScript(ChosenScript& chosen);

/// Throws the parser's error if both the script and the list `file` of URLs are standard input.
void checkStandardInput(const ChosenScript& chosen, const std::string& file);

/// The bytes of the script. Throws Failure as readScript() does.
std::string readChosenScript(const ChosenScript& chosen);

}  // namespace client
