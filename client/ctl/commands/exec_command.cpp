#include "client/ctl/commands/exec_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

#include "client/ctl/commands/answer_options.h"
#include "client/ctl/commands/call_options.h"
#include "client/ctl/commands/proxy_variables.h"
#include "client/ctl/daemon/answers.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/connection.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/ctl/terminal/url_parts.h"
#include "client/library/proxy_answer.h"

namespace client {

namespace {

constexpr const char* kName = "exec";

constexpr const char* kExecFooter =
    R"(The entries of the answer are tried in their order. The command gets the first
entry that is DIRECT or whose proxy accepts a connection; if no proxy accepts
one, it gets the first entry. After 10 seconds it gets the first entry that has
not been tried. http_proxy, https_proxy and all_proxy (also as
HTTP_PROXY and so on) name the proxy; no_proxy leaves this machine out. For
DIRECT all these variables are removed. wget gets only HTTP proxies, because it
refuses others. Without an answer the command is not run. The URL of a manual
proxy gets the configured user name and password, if this user may read them.

Exit status:
  that of the command; if it was not run, standard error has the reason:
)";

/// How long a connection to one proxy may take. This includes the lookup of the proxy's name. A
/// lost packet is sent again after 1 s, so this limit allows for one lost packet.
constexpr std::chrono::seconds kConnectLimit{3};

/// How long the connections to all proxies together may take. A list of dead proxies must not delay
/// the command by minutes.
constexpr std::chrono::seconds kCheckLimit{10};

struct ExecArguments {
  std::string url;
  bool noCheck = false;
  AnswerOptions answers{false, true, {}};
  CallOptions call;
};

bool canUse(const std::string& command, ProxyKind kind) {
  if (kind == ProxyKind::kUnusable) return false;
  const auto name = command.substr(command.rfind('/') + 1);
  return name != "wget" || kind == ProxyKind::kDirect || kind == ProxyKind::kHttp;
}

Failure nothingToUse(const ExecArguments& arguments, const ProxyAnswer& answer) {
  return {kNoAnswer, "no answer for " + withoutPassword(arguments.url) +
                         (answer.entries.empty() ? "" : ": none of its entries is of use") +
                         "; the command is not run"};
}

ProxyEntry firstThatConnects(const std::vector<ProxyEntry>& usable) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + kCheckLimit;
  std::set<std::pair<std::string, std::uint16_t>> tried;
  for (const auto& entry : usable) {
    if (entry.kind == ProxyKind::kDirect) return entry;
    if (!tried.emplace(entry.host, entry.port).second) continue;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) {
      complain("no proxy has taken a connection within " + secondsText(kCheckLimit) +
               "; the command gets the first that was not tried");
      return entry;
    }
    const auto limit = std::min<std::chrono::milliseconds>(left, kConnectLimit);
    if (connectTo(entry.host, entry.port, limit).problem.empty()) return entry;
  }
  complain("no proxy of the answer takes a connection; the command gets the first");
  return usable.front();
}

ProxyEntry entryFor(const ExecArguments& arguments, const std::string& command) {
  const auto answer = Answers(arguments.call.limit, arguments.answers).ask(arguments.url);
  std::vector<ProxyEntry> usable;
  std::copy_if(answer.entries.begin(), answer.entries.end(), std::back_inserter(usable),
               [&](const ProxyEntry& entry) { return canUse(command, entry.kind); });
  if (usable.empty()) throw nothingToUse(arguments, answer);
  if (arguments.noCheck || (usable.size() == 1 && usable.front().kind == ProxyKind::kDirect)) {
    return usable.front();
  }
  return firstThatConnects(usable);
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

ExitStatus run(const ExecArguments& arguments, std::vector<std::string> command) {
  const auto entry = entryFor(arguments, command.front());
  std::vector<std::string> before;
  for (char** variable = environ; *variable != nullptr; ++variable) before.emplace_back(*variable);
  auto after = withVariables(before, proxyVariables(entry, canonicalOrGiven(arguments.url)));
  execvpe(command.front().c_str(), pointersTo(command).data(), pointersTo(after).data());
  const int error = errno;
  throw Failure(error == ENOENT ? kNoSuchCommand : kCannotRun,
                "cannot run " + command.front() + ": " + std::generic_category().message(error));
}

using Words = std::vector<std::string>;

/// The first word after --json and --timeout.
Words::iterator findCommand(Words& own) {
  auto command = own.begin();
  while (command != own.end() && (*command == "--json" || command->starts_with("--timeout"))) {
    command += *command == "--timeout" && own.end() - command > 1 ? 2 : 1;
  }
  return command;
}

/// Moves --json and --timeout from the place before `command` to the place after it.
void moveBehindCommand(Words& own, Words::iterator command) {
  if (command->starts_with('-')) return;
  const bool isGroup = *command == "pac" || *command == "pvd" || *command == "relay";
  std::rotate(own.begin(), command, command + (isGroup && own.end() - command > 1 ? 2 : 1));
}

}  // namespace

CommandLine splitCommandLine(int argc, const char* const* argv) {
  CommandLine line;
  line.own.assign(argv + std::min(argc, 1), argv + argc);
  const auto command = findCommand(line.own);
  if (command == line.own.end()) {  // options alone are no command
    line.own.clear();
    return line;
  }
  line.isHelp = *command == "help";
  if (line.isHelp) {
    line.own.erase(line.own.begin(), command + 1);
    line.own.emplace_back("--help");
    return line;
  }
  moveBehindCommand(line.own, command);
  if (line.own.front() != kName) return line;
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
  addAnswerOptions(*command, arguments->answers);
  command->add_flag("--no-check", arguments->noCheck,
                    "Take the first entry without a connection\nto its proxy");
  command->footer(std::string(kExecFooter) +
                  statusHelp({{kNoAnswer, "there is no answer for the URL"},
                              {kCannotRun, "the command cannot be run"},
                              {kNoSuchCommand, "there is no such command"}},
                             kBusStatuses));
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
