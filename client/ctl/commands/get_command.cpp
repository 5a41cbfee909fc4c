#include "client/ctl/commands/get_command.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/commands/proxy_variables.h"
#include "client/ctl/commands/url_arguments.h"
#include "client/ctl/commands/url_parts.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_answers.h"
#include "client/ctl/exit_text.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/library/proxy_answer.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kFooter = R"text(Output:
  For each URL the mode, and an entry for each thing to try, in order. With
  --json one array that holds an object for each URL, in order:
    url       the URL as given, with its password hidden
    mode      off, manual, pacurl or wpad
    answered  false where the script gives no answer
    entries   array of objects: text (as the daemon gives it), kind (direct,
              http, https, socks4, socks4a, socks5, socks5h or unusable) and
              proxy (its URL, or null)
Formats, for use elsewhere; passwords in a URL are not hidden in these:
  curl  a line for each URL, for curl's -x: the URL of the first entry that
        can be used, empty for DIRECT. SOCKS is taken for version 5, with
        names looked up by the proxy (socks5h)
  env   lines for a shell, of one URL, that set http_proxy and the like, or
        unset them for DIRECT:
        vars=$(proxymanagerctl get --format env "$URL") && eval "$vars"
  raw   a line for each URL: the entries as the daemon gives them, with "; "
        between
A URL without an answer has no line.

Exit status:
  0    all URLs got an answer
  1    at least one URL got none
)text";

struct GetArguments {
  std::vector<std::string> urls;
  std::string format = "table";
  CallOptions call;
};

struct Answered {
  std::string url;
  std::string shownUrl;
  ProxyAnswer answer;
};

std::string shownEntry(const ProxyEntry& entry, bool showPassword) {
  if (entry.kind == ProxyKind::kDirect) return "DIRECT";
  const auto text = showPassword ? entry.text : withoutPassword(entry.text);
  return entry.kind == ProxyKind::kUnusable ? text + " (of no use)" : text;
}

Json jsonOf(const Answered& answered, bool showPassword) {
  const auto shown = [&](const std::string& text) {
    return showPassword ? text : withoutPassword(text);
  };
  Json entries = Json::array();
  for (const auto& entry : answered.answer.entries) {
    const auto proxy = proxyUrl(entry);
    entries.push_back(Json{{"text", shown(entry.text)},
                           {"kind", kindName(entry.kind)},
                           {"proxy", proxy.empty() ? Json() : Json(shown(proxy))}});
  }
  Json object;
  object["url"] = answered.shownUrl;
  object["mode"] = answered.answer.mode;
  object["answered"] = !answered.answer.entries.empty();
  object["entries"] = std::move(entries);
  return object;
}

void printTable(const Answered& answered, bool showPassword) {
  std::vector<Row> rows{{"mode", answered.answer.mode}};
  for (const auto& entry : answered.answer.entries) {
    const auto tone = entry.kind == ProxyKind::kUnusable ? Tone::kBad : Tone::kPlain;
    rows.push_back({"entry", shownEntry(entry, showPassword), tone});
  }
  if (answered.answer.entries.empty()) rows.push_back({"entry", "(no answer)", Tone::kBad});
  printBlock(answered.shownUrl, rows);
}

std::string rawLine(const ProxyAnswer& answer) {
  std::string line;
  for (const auto& entry : answer.entries) {
    if (!line.empty()) line += "; ";
    line += entry.text;
  }
  return line;
}

/// Prints `answered` for another program. @return false where it has nothing to use
bool printForUse(const Answered& answered, const std::string& format) {
  const auto& entries = answered.answer.entries;
  const auto* const usable = firstUsable(entries);
  if (format == "raw" ? entries.empty() : usable == nullptr) {
    complain("no answer for " + answered.shownUrl +
             (entries.empty() ? "" : ": none of its entries is of use"));
    return false;
  }
  if (format == "raw") {
    printLine(rawLine(answered.answer));
  } else if (format == "curl") {
    printLine(proxyUrl(*usable));
  } else {
    printText(shellLines(proxyVariables(*usable, hostOf(answered.url))));
  }
  return true;
}

Answered ask(const DaemonAnswers& daemon, const std::string& url, bool showPassword) {
  return {url, showPassword ? url : withoutPassword(url), daemon.ask(url)};
}

ExitStatus getJson(const DaemonAnswers& daemon, const GetArguments& arguments) {
  Json all = Json::array();
  bool allAnswered = true;
  try {
    for (const auto& url : arguments.urls) {
      const auto answered = ask(daemon, url, arguments.call.showPassword);
      all.push_back(jsonOf(answered, arguments.call.showPassword));
      allAnswered = allAnswered && !answered.answer.entries.empty();
    }
  } catch (const Failure&) {
    if (!all.empty()) printJson(all);  // as the other forms have by then
    throw;
  }
  printJson(all);
  return allAnswered ? kAnswered : kNoAnswer;
}

ExitStatus get(const GetArguments& arguments) {
  const DaemonAnswers daemon(arguments.call.limit);
  if (arguments.call.json) return getJson(daemon, arguments);
  bool allAnswered = true;
  for (const auto& url : arguments.urls) {
    const auto answered = ask(daemon, url, arguments.call.showPassword);
    bool hasAnswer = !answered.answer.entries.empty();
    if (arguments.format == "table") {
      printTable(answered, arguments.call.showPassword);
    } else {
      hasAnswer = printForUse(answered, arguments.format);
    }
    allAnswered = allAnswered && hasAnswer;
  }
  return allAnswered ? kAnswered : kNoAnswer;
}

}  // namespace

void addGetCommand(CLI::App& program, Action& action) {
  auto* const command = program.add_subcommand("get", "Asks which proxies to use for URLs.");
  const auto arguments = std::make_shared<GetArguments>();
  addUrls(*command, arguments->urls);
  auto* const format =
      command
          ->add_option("--format", arguments->format,
                       "For use elsewhere: curl, env or raw;\ninstead of a table for people")
          ->option_text("FORMAT")
          ->check(CLI::IsMember({"table", "curl", "env", "raw"}));
  addCallOptions(*command, arguments->call, kAskLimit);
  command->get_option("--json")->excludes(format);
  addShowPassword(*command, arguments->call);
  command->footer(std::string(kFooter) + kBusStatuses);
  command->callback([arguments, command, &action] {
    addFurtherUrls(*command, arguments->urls);
    for (const auto& url : arguments->urls) checkAskedUrl(url);
    if (arguments->format == "env" && arguments->urls.size() > 1) {
      throw CLI::ValidationError("--format", "env takes one URL: the next would speak against it");
    }
    action = [arguments] { return get(*arguments); };
  });
}

}  // namespace client
