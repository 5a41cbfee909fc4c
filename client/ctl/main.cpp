// proxymanagerctl: the grammar of the command line, and the handling of all errors.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/log_line.h"
#include "client/ctl/commands/command.h"
#include "client/ctl/commands/config_command.h"
#include "client/ctl/commands/diagnose_command.h"
#include "client/ctl/commands/exec_command.h"
#include "client/ctl/commands/get_command.h"
#include "client/ctl/commands/pac_command.h"
#include "client/ctl/commands/pvd_command.h"
#include "client/ctl/commands/refresh_command.h"
#include "client/ctl/commands/relay_command.h"
#include "client/ctl/commands/settings_command.h"
#include "client/ctl/commands/status_command.h"
#include "client/ctl/commands/update_command.h"
#include "client/ctl/commands/wait_command.h"
#include "client/ctl/commands/watch_command.h"
#include "client/ctl/terminal/output.h"

namespace {

constexpr const char* kFooter = R"(Each command has its own --help.

Exit status:
)";

/// The words of `command` on the command line: "proxymanagerctl pac eval".
std::string wordsOf(const CLI::App& command) {
  const auto* const parent = command.get_parent();
  return (parent == nullptr ? "" : wordsOf(*parent) + ' ') + command.get_name();
}

const CLI::App& namedCommand(const CLI::App& program) {
  const auto* command = &program;
  while (!command->get_subcommands().empty()) command = command->get_subcommands().front();
  return *command;
}

/// If `command` is a group of commands, returns the first word on the command line that is not one
/// of these commands. Returns an empty text if there is no such word, which is the usual case.
std::string unknownCommand(const CLI::App& command) {
  const auto unknown = command.remaining();
  const bool isGroup = command.get_require_subcommand_min() > 0;
  return isGroup && !unknown.empty() ? unknown.front() : std::string();
}

client::ExitStatus wrongUsage(const CLI::App& command, const std::string& why) {
  client::complain(why);
  client::complain("see " + wordsOf(command) + " --help");
  return client::kUsage;
}

client::ExitStatus noCommand(const CLI::App& parent, const std::string& word) {
  return wrongUsage(parent, "there is no command \"" + word + '"');
}

/// Shows the help or the version, or an error for an unknown command. The check is made here,
/// because the parser accepts an unknown command before --help, and takes a word after the command
/// as an argument.
client::ExitStatus show(const CLI::App& program, const CLI::Success& asked,
                        const client::CommandLine& line) {
  const auto& command = namedCommand(program);
  const auto words = wordsOf(command);
  const auto depth = static_cast<std::size_t>(std::count(words.begin(), words.end(), ' '));
  const bool hasMore = line.isHelp && line.own.size() > depth + 1;  // the last word is --help
  if (hasMore) return noCommand(command, line.own[depth]);
  const auto unknown = unknownCommand(command);
  if (!unknown.empty() && !unknown.starts_with('-')) return noCommand(command, unknown);
  program.exit(asked);
  client::finishOutput();
  return client::kAnswered;
}

/// Adds the command that the line names, and no other: describing the options of all commands takes
/// longer than asking the daemon. If the line names no command, adds all commands, because the help
/// and the error messages need them. @return whether the line names a command
bool addCommands(CLI::App& program, client::Action& action, const client::CommandLine& line) {
  const std::pair<std::vector<std::string_view>, std::function<void()>> commands[] = {
      {{"status"}, [&] { client::addStatusCommand(program, action); }},
      {{"get"}, [&] { client::addGetCommand(program, action); }},
      {{"config"}, [&] { client::addConfigCommand(program, action); }},
      {{"off", "manual", "pacurl", "wpad"}, [&] { client::addUpdateCommands(program, action); }},
      {{"settings"}, [&] { client::addSettingsCommand(program, action); }},
      {{"watch"}, [&] { client::addWatchCommand(program, action); }},
      {{"refresh"}, [&] { client::addRefreshCommand(program, action); }},
      {{"wait"}, [&] { client::addWaitCommand(program, action); }},
      {{"diagnose"}, [&] { client::addDiagnoseCommand(program, action); }},
      {{"exec"}, [&] { client::addExecCommand(program, action, line); }},
      {{"pac"}, [&] { client::addPacCommand(program, action); }},
      {{"relay"}, [&] { client::addRelayCommand(program, action); }},
      {{"pvd"}, [&] { client::addPvdCommand(program, action); }},
  };
  const std::string_view first = line.own.empty() ? std::string_view() : line.own.front();
  const auto isFirst = [&](const auto& command) {
    return std::find(command.first.begin(), command.first.end(), first) != command.first.end();
  };
  const bool isNamed = std::any_of(std::begin(commands), std::end(commands), isFirst);
  for (const auto& command : commands) {
    if (!isNamed || isFirst(command)) command.second();
  }
  return isNamed;
}

client::ExitStatus run(int argc, char** argv) {
  client::Action action;
  CLI::App program("Asks and configures proxymanagerd; tries PAC scripts out.", "proxymanagerctl");
  program.set_version_flag("-V,--version", std::string("proxymanagerctl ") + PROXYMANAGER_VERSION);
  program.require_subcommand(1);
  program.footer(std::string(kFooter) + client::statusHelp());
  const auto line = client::splitCommandLine(argc, argv);
  const bool isNamed = addCommands(program, action, line);
  auto status = client::kAnswered;
  if (line.own.empty()) {
    std::cout << program.help();
    client::finishOutput();
    return client::kUsage;
  }
  if (!isNamed && !line.own.front().starts_with('-')) return noCommand(program, line.own.front());
  try {
    // The parser expects the last word first.
    program.parse(std::vector<std::string>(line.own.rbegin(), line.own.rend()));
    status = action();
  } catch (const CLI::Success& asked) {
    return show(program, asked, line);
  } catch (const CLI::ParseError& error) {
    const auto& command = namedCommand(program);
    const auto unknown = unknownCommand(command);
    return unknown.empty() ? wrongUsage(command, error.what()) : noCommand(command, unknown);
  }
  client::finishOutput();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  client::keepStandardDescriptors();
  // The libraries log for the daemon. This program does not need these lines, because the functions
  // return the same facts.
  openlog("proxymanagerctl", LOG_PERROR, LOG_USER);
  setlogmask(LOG_MASK(LOG_EMERG));
  try {
    return run(argc, argv);
  } catch (const client::Failure& failure) {
    client::complain(failure.what());
    return failure.status();
  } catch (const std::exception& error) {
    client::complain(error.what());
    return client::kInternal;
  }
}
