#include "client/ctl/commands/exec_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/commands/proxy_variables.h"
#include "client/ctl/commands/url_parts.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_answers.h"
#include "client/ctl/exit_text.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/library/proxy_answer.h"

namespace client {

namespace {

constexpr const char* kName = "exec";

constexpr const char* kFooter =
    R"(The first entry of the answer that can be used says what http_proxy, https_proxy
and all_proxy are, also as HTTP_PROXY and so on; no_proxy leaves this machine
out. For DIRECT none of them is set, whatever was set before. Without an answer
the command is not run.

Exit status:
  that of the command; where it was not run, standard error says why:
  1    there is no answer for the URL
  126  the command cannot be run
  127  there is no such command
)";

struct ExecArguments {
  std::string url;
  CallOptions call;
};

ProxyEntry entryFor(const ExecArguments& arguments) {
  const auto answer = DaemonAnswers(arguments.call.limit).ask(arguments.url);
  const auto* const usable = firstUsable(answer.entries);
  if (usable == nullptr) {
    throw Failure(kNoAnswer, "no answer for " + withoutPassword(arguments.url) +
                                 (answer.entries.empty() ? "" : ": none of its entries is of use") +
                                 "; the command is not run");
  }
  return *usable;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

ExitStatus run(const ExecArguments& arguments, std::vector<std::string> command) {
  const auto entry = entryFor(arguments);
  std::vector<std::string> before;
  for (char** variable = environ; *variable != nullptr; ++variable) before.emplace_back(*variable);
  auto after = withVariables(before, proxyVariables(entry, hostOf(arguments.url)));
  execvpe(command.front().c_str(), pointersTo(command).data(), pointersTo(after).data());
  const int error = errno;
  throw Failure(error == ENOENT ? kNoSuchCommand : kCannotRun,
                "cannot run " + command.front() + ": " + std::generic_category().message(error));
}

}  // namespace

CommandLine splitCommandLine(int argc, const char* const* argv) {
  CommandLine line;
  line.own.assign(argv + std::min(argc, 1), argv + argc);
  if (line.own.empty() || line.own.front() != kName) return line;
  const auto mark = std::find(line.own.begin(), line.own.end(), "--");
  if (mark == line.own.end()) return line;
  line.hasOther = true;
  line.other.assign(mark + 1, line.own.end());
  line.own.erase(mark, line.own.end());
  return line;
}

void addExecCommand(CLI::App& program, Action& action, const CommandLine& line) {
  auto* const command = program.add_subcommand(kName, "Runs a command with the proxy for a URL.");
  const auto arguments = std::make_shared<ExecArguments>();
  command->add_option("URL", arguments->url, "What the command is going to fetch")
      ->required()
      ->option_text("-- COMMAND [ARGUMENT...]");
  addTimeout(*command, arguments->call, kAskLimit);
  command->footer(std::string(kFooter) + kBusStatuses);
  command->callback([arguments, &line, &action] {
    checkAskedUrl(arguments->url);
    if (line.other.empty()) {
      throw CLI::RequiredError(line.hasOther ? "A command behind \"--\""
                                             : "\"--\" and a command behind it");
    }
    action = [arguments, &line] { return run(*arguments, line.other); };
  });
}

}  // namespace client
