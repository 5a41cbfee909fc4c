// The script in force as a command's script.
#pragma once

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace client {

/// The script that a command is about: a file, or the one that the daemon has fetched.
struct ChosenScript {
  std::string file;
  std::string option;  ///< FILE as the option -p has it
  bool isCurrent = false;
};

/// Adds FILE and --current to `command`, and -p and -u, the names that other testers of scripts
/// have for FILE and URL.
void addChosenScript(CLI::App& command, ChosenScript& chosen, std::vector<std::string>& urls);

/// To be called when the command line is parsed, before the URLs are looked at: with --current or
/// -p the word in the place of FILE is the first URL. Throws the parser's error if there is no
/// script.
void settleChosenScript(ChosenScript& chosen, std::vector<std::string>& urls);

/// The bytes of the script. Throws Failure as readScript() does.
std::string readChosenScript(const ChosenScript& chosen);

}  // namespace client
