#include "client/ctl/commands/get_command.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "client/ctl/commands/answer_json.h"
#include "client/ctl/commands/answer_options.h"
#include "client/ctl/commands/call_options.h"
#include "client/ctl/commands/proxy_variables.h"
#include "client/ctl/commands/url_arguments.h"
#include "client/ctl/daemon/answers.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/ctl/terminal/url_parts.h"
#include "client/library/proxy_answer.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kGetFooter = R"text(Output:
  For each URL the mode, and an entry for each thing to try, in order. With
  --json one array that holds an object for each URL, in order:
    url       the URL as given, with its password hidden
    mode      off, manual, pacurl, wpad or local; null for pac eval
    host      the host that is asked about
    answered  whether there is an entry that the daemon gives
    result    the entries as text, or null
    entries   array of objects: text, kind (direct, http, https, socks4,
              socks4a, socks5, socks5h or unusable), proxy (its URL, or null)
              and dropped (true if the daemon leaves the entry out)
    error     why there is no result, or null
  For localhost, 127.0.0.0/8, ::1 and other addresses of this machine or this
  link the answer is DIRECT in every mode ("local"); --ask-local asks anyway.
  The question contains the canonical URL: no user name or password, and for
  https no path and query.
Formats, for use elsewhere; passwords in a URL are not hidden in these:
  curl  a line for each URL, for curl's -x: the URL of the first entry that
        can be used, empty for DIRECT. SOCKS means version 5, and the
        proxy looks names up (socks5h)
  env   lines for a shell, of one URL, that set http_proxy and the like, or
        unset them for DIRECT:
        vars=$(proxymanagerctl get --format env "$URL") && eval "$vars"
  raw   a line for each URL: the entries as the daemon gives them, with "; "
        between
A URL without an answer has no line.
--with-password puts the configured user name and password into the proxy's
URL: of a manual proxy, and of a proxy of HOST for --credentials-for HOST. In
curl -x "$(...)" every user can see them in the argument list; exec hides them.

Exit status:
)text";

struct GetArguments {
  UrlArguments asked;
  std::string format = "table";
  AnswerOptions answers;
  CallOptions call;
};

struct Answered {
  std::string url;
  std::string shownUrl;
  ProxyAnswer answer;
};

std::string rawLine(const ProxyAnswer& answer) {
  std::string line;
  for (const auto& entry : answer.entries) {
    if (!line.empty()) line += "; ";
    line += entry.text;
  }
  return line;
}

std::string shownEntry(const ProxyEntry& entry, bool showPassword) {
  if (entry.kind == ProxyKind::kDirect) return "DIRECT";
  const auto text = showPassword ? entry.text : withoutPassword(entry.text);
  return entry.kind == ProxyKind::kUnusable ? text + " (of no use)" : text;
}

ShownAnswer shownAnswer(const Answered& answered) {
  ShownAnswer shown{
      answered.shownUrl, answered.answer.mode, hostOf(canonicalOrGiven(answered.url)), {}, {}, {}};
  for (const auto& entry : answered.answer.entries) shown.entries.push_back({entry, false});
  if (!shown.entries.empty()) shown.result = rawLine(answered.answer);
  return shown;
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

/// Prints `answered` in a form for other programs. @return false if there is no usable entry
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
    printText(shellLines(proxyVariables(*usable, canonicalOrGiven(answered.url))));
  }
  return true;
}

Answered ask(Answers& daemon, const std::string& url, bool showPassword) {
  return {url, showPassword ? url : withoutPassword(url), daemon.ask(url)};
}

ExitStatus getJson(Answers& daemon, const GetArguments& arguments) {
  Json all = Json::array();
  bool allAnswered = true;
  try {
    for (const auto& url : arguments.asked.urls) {
      const auto answered = ask(daemon, url, arguments.call.showPassword);
      all.push_back(jsonOf(shownAnswer(answered), arguments.call.showPassword));
      allAnswered = allAnswered && !answered.answer.entries.empty();
    }
  } catch (const Failure&) {
    if (!all.empty()) printJson(all);  // other formats print each answer at once
    throw;
  }
  printJson(all);
  return allAnswered ? kAnswered : kNoAnswer;
}

/// Throws the parser's error for password options that would have no effect.
void checkPasswordOptions(const GetArguments& arguments) {
  const auto& answers = arguments.answers;
  if (answers.withCredentials && arguments.format != "curl" && arguments.format != "env") {
    throw CLI::ValidationError("--with-password", "only the formats curl and env have URLs");
  }
  if (!answers.withCredentials && !answers.credentialHosts.empty()) {
    throw CLI::RequiresError("--credentials-for", "--with-password");
  }
}

ExitStatus get(const GetArguments& arguments) {
  Answers daemon(arguments.call.limit, arguments.answers);
  if (arguments.call.json) return getJson(daemon, arguments);
  bool allAnswered = true;
  for (const auto& url : arguments.asked.urls) {
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
  addUrls(*command, arguments->asked);
  auto* const format =
      command
          ->add_option("--format", arguments->format,
                       "For use elsewhere: curl, env or raw;\ninstead of a table for people")
          ->option_text("FORMAT")
          ->check(CLI::IsMember({"table", "curl", "env", "raw"}));
  addCallOptions(*command, arguments->call, kAskLimit);
  command->get_option("--json")->excludes(format);
  addShowPassword(*command, arguments->call);
  addAnswerOptions(*command, arguments->answers);
  command
      ->add_flag("--with-password", arguments->answers.withCredentials,
                 "With curl and env: user name and password\nof the configuration in the URL")
      ->needs(format);
  command->footer(std::string(kGetFooter) +
                  statusHelp({{kAnswered, "all URLs got an answer"},
                              {kNoAnswer, "at least one URL got no answer"}},
                             kBusStatuses));
  command->callback([arguments, command, &action] {
    addFurtherUrls(*command, arguments->asked);
    requireUrls(arguments->asked);
    for (const auto& url : arguments->asked.urls) checkAskedUrl(url);
    checkPasswordOptions(*arguments);
    if (arguments->format == "env" && arguments->asked.urls.size() > 1) {
      throw CLI::ValidationError("--format",
                                 "env takes one URL: a second one would overwrite its variables");
    }
    action = [arguments] { return get(*arguments); };
  });
}

}  // namespace client
