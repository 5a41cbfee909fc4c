// proxymanagerctl: the grammar of the command line, and the end of everything that goes wrong.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <string>

#include "base/log_line.h"
#include "client/ctl/commands/command.h"
#include "client/ctl/commands/config_command.h"
#include "client/ctl/commands/exec_command.h"
#include "client/ctl/commands/get_command.h"
#include "client/ctl/commands/pac_command.h"
#include "client/ctl/commands/status_command.h"
#include "client/ctl/commands/update_command.h"
#include "client/ctl/commands/watch_command.h"
#include "client/ctl/terminal/output.h"

namespace {

constexpr const char* kFooter = R"(Each command has its own --help.

Exit status:
  0        done, with an answer where one was asked for
  1        no answer
  2        a PAC script is refused
  64       the command line is wrong, or the address of the message bus
  65       what was read is no password or URL
  66       a file cannot be read
  69       the daemon does not run, or there is no message bus
  70       no memory, or a fault of the program
  74       the output cannot be written
  75       no answer in time; try again
  76       what has the daemon's name does not answer as it does
  77       the bus does not allow it
  126, 127 exec: the command cannot be run, or is not there
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
  program.set_version_flag("--version", std::string("proxymanagerctl ") + PROXYMANAGER_VERSION);
  program.require_subcommand(1);
  program.footer(kFooter);
  auto line = client::splitCommandLine(argc, argv);
  client::addStatusCommand(program, action);
  client::addGetCommand(program, action);
  client::addConfigCommand(program, action);
  client::addUpdateCommands(program, action);
  client::addWatchCommand(program, action);
  client::addExecCommand(program, action, line);
  client::addPacCommand(program, action);
  auto status = client::kAnswered;
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
  // What the libraries have to log is for the daemon; here it comes back as values.
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
