// proxymanagerctl: the grammar of the command line, and the handling of all errors.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <iostream>
#include <string>

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

/// The command that was being parsed, in words.
std::string wordsOf(const CLI::App& command) {
  const auto* const parent = command.get_parent();
  return (parent == nullptr ? "" : wordsOf(*parent) + ' ') + command.get_name();
}

client::ExitStatus wrongUsage(const CLI::App& program, const CLI::ParseError& error) {
  const auto* command = &program;
  while (!command->get_subcommands().empty()) command = command->get_subcommands().front();
  const auto unknown = command->remaining();
  if (command->get_require_subcommand_min() > 0 && !unknown.empty()) {
    client::complain("there is no command \"" + unknown.front() + '"');
  } else {
    client::complain(error.what());
  }
  client::complain("see " + wordsOf(*command) + " --help");
  return client::kUsage;
}

client::ExitStatus run(int argc, char** argv) {
  client::Action action;
  CLI::App program("Asks and configures proxymanagerd; tries PAC scripts out.", "proxymanagerctl");
  program.set_version_flag("-V,--version", std::string("proxymanagerctl ") + PROXYMANAGER_VERSION);
  program.require_subcommand(1);
  program.footer(std::string(kFooter) + client::statusHelp());
  auto line = client::splitCommandLine(argc, argv);
  client::addStatusCommand(program, action);
  client::addGetCommand(program, action);
  client::addConfigCommand(program, action);
  client::addUpdateCommands(program, action);
  client::addSettingsCommand(program, action);
  client::addWatchCommand(program, action);
  client::addRefreshCommand(program, action);
  client::addWaitCommand(program, action);
  client::addDiagnoseCommand(program, action);
  client::addExecCommand(program, action, line);
  client::addPacCommand(program, action);
  client::addRelayCommand(program, action);
  client::addPvdCommand(program, action);
  auto status = client::kAnswered;
  if (line.own.empty()) {
    std::cout << program.help();
    client::finishOutput();
    return client::kUsage;
  }
  try {
    std::reverse(line.own.begin(), line.own.end());  // as the parser wants it
    program.parse(line.own);
    status = action();
  } catch (const CLI::Success& asked) {
    program.exit(asked);  // the help or the version
  } catch (const CLI::ParseError& error) {
    return wrongUsage(program, error);
  }
  client::finishOutput();
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  // The log lines of the libraries are for the daemon; here the functions return the same facts as
  // values.
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
