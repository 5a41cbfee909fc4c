#include "client/ctl/commands/pac_command.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "base/log_line.h"
#include "client/ctl/commands/option_text.h"
#include "client/ctl/commands/script_file.h"
#include "client/ctl/commands/simulated_environment.h"
#include "client/ctl/commands/url_arguments.h"
#include "client/ctl/terminal/output.h"
#include "domain/url_host.h"
#include "engine/pac_engine.h"
#include "pac/pac_parser.h"
#include "service/records/proxy_config_owner.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kPacExamples = R"(Examples:
  proxymanagerctl pac check proxy.pac
  proxymanagerctl pac eval proxy.pac http://www.example.org/ https://intranet/
  proxymanagerctl pac eval --resolve www.example.org=192.0.2.7 \
      --my-ip 10.1.2.3 --at 2026-03-02T09:00 --tz Europe/Berlin \
      proxy.pac http://www.example.org/)";

constexpr const char* kEvalFooter = R"(Output:
  For each URL the host, the text that the script returned, and an entry for
  each part of it that the daemon takes: DIRECT, PROXY and SOCKS. With --json
  one array that holds an object for each URL, in order:
    url      the URL as given
    host     the host that the script was given
    result   the text that the script returned, or null
    entries  array of objects: type (1 DIRECT, 2 PROXY, 3 SOCKS) and url
             (the text of the entry)
    error    why there is no result, or null
  What the script says with alert() goes to standard error and to syslog.

All URLs are asked of one script that is loaded once, so its variables live on
from one to the next. Loading may take 5 seconds, and so may each URL. URLs may
have 8 KiB. The script sees no path of an https URL, and no password of any.
A JavaScript Date shows the device's own clock whatever --at says.

Exit status:
  0   all URLs got an answer
  1   at least one URL got none
  2   the script is refused; standard error says why, and in which line
  64  the command line is wrong
  66  the script cannot be read
  74  the output cannot be written
)";

constexpr const char* kCheckFooter = R"(Output:
  Nothing where the script loads. With --json an object:
    file    FILE as given
    valid   true or false
    error   why it is refused, or null
    line    the line of the script that is to blame, or null
  What the script says with alert() goes to standard error and to syslog.

Exit status:
  0   the script loads
  2   the script is refused; standard error says why, and in which line
  64  the command line is wrong
  66  the script cannot be read
  74  the output cannot be written
)";

struct EvalArguments {
  std::string file;
  std::vector<std::string> urls;
  std::optional<std::string> host;
  SimulatedEnvironment environment;
  bool json = false;
};

struct CheckArguments {
  std::string file;
  SimulatedEnvironment environment;
  bool json = false;
};

struct Entry {
  std::int32_t type;
  std::string url;
};

struct Evaluated {
  std::string url;
  std::string host;
  pac_engine::Reply reply;
  std::vector<Entry> entries;
};

/// Lets the script's alerts through, the only lines that the library says at LOG_DEBUG, as long as
/// it lives; whatever else is worth knowing comes back as a value.
class AlertsHeard {
 public:
  AlertsHeard() : mMaskBefore(setlogmask(LOG_MASK(LOG_DEBUG))) {}
  ~AlertsHeard() { setlogmask(mMaskBefore); }
  AlertsHeard(const AlertsHeard&) = delete;
  AlertsHeard& operator=(const AlertsHeard&) = delete;

 private:
  int mMaskBefore;
};

/// The entries that the daemon would make of `result`.
std::vector<Entry> entriesOf(const std::string& result) {
  std::vector<Entry> entries;
  for (const auto& setting : PacParser::proxys2ProxySettings(result)) {
    const HeapText url(setting.url);
    entries.push_back({setting.type, url.get()});
  }
  return entries;
}

Evaluated evaluate(pac_engine::Engine& engine, const std::string& url,
                   const std::optional<std::string>& givenHost) {
  Evaluated evaluated{url, givenHost.value_or(""), {}, {}};
  if (!givenHost) {
    const HeapText host(getHost(url));
    if (host == nullptr) {
      evaluated.reply.problem.message = "the URL has no host; --host gives one";
      return evaluated;
    }
    evaluated.host = host.get();
  }
  const AlertsHeard heard;
  evaluated.reply = engine.evaluate(url, evaluated.host);
  if (evaluated.reply.result) evaluated.entries = entriesOf(*evaluated.reply.result);
  return evaluated;
}

Json jsonOf(const Evaluated& evaluated) {
  const auto& reply = evaluated.reply;
  Json entries = Json::array();
  for (const auto& entry : evaluated.entries) {
    entries.push_back(Json{{"type", entry.type}, {"url", entry.url}});
  }
  Json object;
  object["url"] = evaluated.url;
  object["host"] = evaluated.host;
  object["result"] = reply.result ? Json(*reply.result) : Json();
  object["entries"] = std::move(entries);
  object["error"] = reply.result ? Json() : Json(pac_engine::describe(reply.problem));
  return object;
}

void print(const Evaluated& evaluated) {
  const auto& reply = evaluated.reply;
  std::vector<Row> rows{{"host", evaluated.host}};
  if (!reply.result) {
    rows.push_back({"error", pac_engine::describe(reply.problem)});
  } else {
    rows.push_back({"result", reply.result->empty() ? "(empty)" : *reply.result});
    for (const auto& entry : evaluated.entries) rows.push_back({"entry", entry.url});
    if (evaluated.entries.empty()) rows.push_back({"entry", "(none)"});
  }
  printBlock(evaluated.url, rows);
}

std::unique_ptr<pac_engine::Engine> loadScript(const std::string& file, pac_engine::Options options,
                                               pac_engine::Problem& refused) {
  const auto script = readScript(file);
  const AlertsHeard heard;
  return pac_engine::Engine::load(script, std::move(options), refused);
}

Failure refusal(const std::string& file, const pac_engine::Problem& problem) {
  return {kRefused, shownName(file) + ": " + pac_engine::describe(problem)};
}

ExitStatus evalScript(const EvalArguments& arguments, pac_engine::Options options) {
  pac_engine::Problem refused;
  const auto engine = loadScript(arguments.file, std::move(options), refused);
  if (!engine) throw refusal(arguments.file, refused);
  Json all = Json::array();
  bool allAnswered = true;
  for (const auto& url : arguments.urls) {
    const auto evaluated = evaluate(*engine, url, arguments.host);
    allAnswered = allAnswered && evaluated.reply.result.has_value();
    if (arguments.json) {
      all.push_back(jsonOf(evaluated));
    } else {
      print(evaluated);
    }
  }
  if (arguments.json) printJson(all);
  return allAnswered ? kAnswered : kNoAnswer;
}

ExitStatus checkScript(const CheckArguments& arguments, pac_engine::Options options) {
  pac_engine::Problem refused;
  const auto engine = loadScript(arguments.file, std::move(options), refused);
  if (arguments.json) {
    Json object;
    object["file"] = arguments.file;
    object["valid"] = engine != nullptr;
    object["error"] = engine ? Json() : Json(refused.message);
    object["line"] = refused.line == 0 ? Json() : Json(refused.line);
    printJson(object);
  }
  if (!engine) throw refusal(arguments.file, refused);
  return kAnswered;
}

void addFile(CLI::App& command, std::string& file) {
  command
      .add_option("FILE", file,
                  "The PAC script: a file of at most\n512,000 bytes, or \"-\" for standard input")
      ->required()
      ->option_text(" ");
}

void addEval(CLI::App& pac, Action& action) {
  auto* const command = pac.add_subcommand("eval", "Asks a PAC script for the proxies of URLs.");
  const auto arguments = std::make_shared<EvalArguments>();
  addFile(*command, arguments->file);
  addUrls(*command, arguments->urls);
  addText(*command, "--host", "HOST", arguments->host,
          "Second argument of FindProxyForURL, for\nall URLs; by default the host of each,\nas the "
          "daemon finds it");
  addEnvironmentOptions(*command, arguments->environment);
  command->add_flag("--json", arguments->json, "Print JSON instead of text for people");
  command->footer(kEvalFooter);
  command->callback([arguments, command, &action] {
    addFurtherUrls(*command, arguments->urls);
    action = [arguments, options = engineOptions(arguments->environment)] {
      return evalScript(*arguments, options);
    };
  });
}

void addCheck(CLI::App& pac, Action& action) {
  auto* const command = pac.add_subcommand("check", "Loads a PAC script, and does no more.");
  const auto arguments = std::make_shared<CheckArguments>();
  addFile(*command, arguments->file);
  addEnvironmentOptions(*command, arguments->environment);
  command->add_flag("--json", arguments->json, "Print JSON");
  command->footer(kCheckFooter);
  command->callback([arguments, &action] {
    action = [arguments, options = engineOptions(arguments->environment)] {
      return checkScript(*arguments, options);
    };
  });
}

}  // namespace

void addPacCommand(CLI::App& program, Action& action) {
  auto* const pac = program.add_subcommand("pac", "Tries PAC scripts out, without daemon or bus.");
  pac->require_subcommand(1);
  pac->footer(kPacExamples);
  addEval(*pac, action);
  addCheck(*pac, action);
}

}  // namespace client
