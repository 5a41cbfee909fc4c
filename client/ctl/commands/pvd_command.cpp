#include "client/ctl/commands/pvd_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "base/ascii.h"
#include "client/ctl/commands/option_text.h"
#include "client/ctl/commands/pvd_document.h"
#include "client/ctl/commands/pvd_script.h"
#include "client/ctl/commands/pvd_source.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/script_file.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kSourceHelp =
    "Host of a proxy, whose document is fetched from\nhttps://HOST/.well-known/pvd; a https URL; or a "
    "file,\n\"-\" for standard input";

constexpr const char* kShowFooter = R"(Output:
  The content of the document, and which of its proxies and rules are ignored
  and why. With --json an object: identifier, expires, proxies, rules, warnings;
  "ignored" in a proxy or a rule is the reason, or null.

If a host or a URL is given, the document is fetched once, by https only and
without a proxy. It is not kept.

Exit status:
)";

constexpr const char* kScriptFooter = R"(Output:
  A PAC script for the daemon; warnings go to standard error. The daemon knows
  HTTP proxies and SOCKS: http-connect becomes PROXY, socks5 becomes SOCKS, and
  https-connect, connect-udp, connect-ip and connect-tcp cannot be expressed. If
  a rule then has no proxy, the command fails. A proxy whose mandatory "alpn"
  names more than http/1.1 is ignored.

Example:
  proxymanagerctl pvd to-pac proxy.example.org >proxy.pac
  proxymanagerctl pac eval proxy.pac http://www.example.org/

Exit status:
)";

const std::initializer_list<ExitStatus> kStatuses{kUsage, kNoInput, kInternal, kOutput};

struct PvdArguments {
  std::string source;
  std::optional<std::string> host;
  std::string otherwise = "DIRECT";
  bool json = false;
};

/// Reads the document that the arguments name. Throws Failure if the document cannot be read or is
/// not valid.
pvd::Document documentOf(const PvdArguments& arguments) {
  auto source = pvd::readSource(arguments.source);
  const auto host = arguments.host ? arguments.host : source.host;
  auto reading = pvd::read(source.text, host, std::time(nullptr));
  if (!reading.document) {
    throw Failure(kRefused, shownName(arguments.source) + ": " + reading.error);
  }
  if (!source.warning.empty()) reading.document->warnings.push_back(source.warning);
  return std::move(*reading.document);
}

using pvd::textOf;

std::string textOf(const pvd::Ports& ports) {
  const auto first = std::to_string(ports.first);
  return ports.first == ports.last ? first : first + '-' + std::to_string(ports.last);
}

template <typename Value>
std::vector<std::string> textsOf(const std::vector<Value>& values) {
  std::vector<std::string> texts;
  for (const auto& value : values) texts.push_back(textOf(value));
  return texts;
}

Json reasonOf(const std::string& whyIgnored) {
  return whyIgnored.empty() ? Json() : Json(whyIgnored);
}

Json jsonOf(const pvd::Document& document) {
  Json object;
  object["identifier"] = document.identifier;
  object["expires"] = document.expires;
  object["proxies"] = Json::array();
  for (const auto& proxy : document.proxies) {
    object["proxies"].push_back(
        {{"protocol", proxy.protocol},
         {"proxy", proxy.location},
         {"identifier", proxy.identifier ? Json(*proxy.identifier) : Json()},
         {"ignored", reasonOf(proxy.whyIgnored)}});
  }
  object["rules"] = Json::array();
  for (const auto& rule : document.rules) {
    object["rules"].push_back({{"proxies", rule.proxies},
                               {"domains", rule.domains},
                               {"subnets", textsOf(rule.subnets)},
                               {"ports", textsOf(rule.ports)},
                               {"ignored", reasonOf(rule.whyIgnored)}});
  }
  object["warnings"] = document.warnings;
  return object;
}

void addList(std::vector<Row>& rows, const char* name, const std::vector<std::string>& texts) {
  if (texts.empty()) return;
  std::string all;
  for (const auto& text : texts) all += (all.empty() ? "" : ", ") + text;
  rows.push_back({name, all});
}

void print(const pvd::Document& document) {
  std::vector<Row> head{{"expires", document.expires}};
  for (const auto& warning : document.warnings) head.push_back({"warning", warning, Tone::kBad});
  printBlock(document.identifier, head);
  for (const auto& proxy : document.proxies) {
    std::vector<Row> rows{{"protocol", proxy.protocol}};
    if (proxy.identifier) rows.push_back({"identifier", *proxy.identifier});
    if (!proxy.whyIgnored.empty()) rows.push_back({"ignored", proxy.whyIgnored, Tone::kBad});
    printBlock("proxy " + proxy.location, rows);
  }
  for (std::size_t i = 0; i < document.rules.size(); ++i) {
    const auto& rule = document.rules[i];
    std::vector<Row> rows;
    addList(rows, "ports", textsOf(rule.ports));
    addList(rows, "domains", rule.domains);
    addList(rows, "subnets", textsOf(rule.subnets));
    addList(rows, "proxies", rule.proxies);
    if (!rule.whyIgnored.empty()) {
      rows.push_back({"ignored", rule.whyIgnored, Tone::kBad});
    } else if (rule.proxies.empty()) {
      rows.push_back({"proxies", "(none)"});
    }
    printBlock("rule " + std::to_string(i + 1), rows);
  }
}

ExitStatus show(const PvdArguments& arguments) {
  const auto document = documentOf(arguments);
  if (arguments.json) {
    printJson(jsonOf(document));
  } else {
    print(document);
  }
  return kAnswered;
}

ExitStatus makeScript(const PvdArguments& arguments) {
  const auto script = pvd::scriptOf(documentOf(arguments), arguments.otherwise);
  for (const auto& warning : script.warnings) complain("warning: " + warning);
  if (script.text.empty()) {
    throw Failure(kRefused, shownName(arguments.source) + ": " + script.error);
  }
  printText(script.text);
  return kAnswered;
}

/// Checks the answer for URLs that no rule matches. The answer becomes a quoted text in the script,
/// so few characters are allowed. @return the problem, or an empty text
std::string checkAnswer(const std::string& text) {
  const auto isPart = [](char c) {
    return base::isLetter(c) || base::isDigit(c) ||
           std::string(" .:;[]-_").find(c) != std::string::npos;
  };
  return !text.empty() && std::all_of(text.begin(), text.end(), isPart)
             ? ""
             : "is no answer of a script";
}

std::shared_ptr<PvdArguments> addArguments(CLI::App& command) {
  const auto arguments = std::make_shared<PvdArguments>();
  command.add_option("source", arguments->source, kSourceHelp)
      ->required()
      ->option_text("HOST|URL|FILE");
  addText(command, "--host", "HOST", arguments->host,
          "The proxy whose document it is; by default\nthe host that it is fetched from");
  return arguments;
}

void addShow(CLI::App& pvd, Action& action) {
  auto* const command = pvd.add_subcommand("show", "Reads and judges a document.");
  const auto arguments = addArguments(*command);
  command->add_flag("--json", arguments->json, "Print JSON instead of text for people");
  command->footer(std::string(kShowFooter) + statusHelp({{kAnswered, "the document holds"},
                                                         {kRefused, "the document is refused"}},
                                                        kStatuses));
  command->callback([arguments, &action] { action = [arguments] { return show(*arguments); }; });
}

void addToPac(CLI::App& pvd, Action& action) {
  auto* const command = pvd.add_subcommand("to-pac", "Makes a PAC script of a document.");
  const auto arguments = addArguments(*command);
  command
      ->add_option("--otherwise", arguments->otherwise,
                   "Answer for what no rule matches: the proxy\nthat the document is of, as\n"
                   "\"PROXY host:8080\"; by default DIRECT")
      ->option_text("ANSWER")
      ->check(checkAnswer);
  command->footer(std::string(kScriptFooter) +
                  statusHelp({{kAnswered, "there is a script"},
                              {kRefused, "the document is refused, or no script can express it"}},
                             kStatuses));
  command->callback(
      [arguments, &action] { action = [arguments] { return makeScript(*arguments); }; });
}

}  // namespace

void addPvdCommand(CLI::App& program, Action& action) {
  auto* const pvd =
      program.add_subcommand("pvd", "Reads proxy information by provisioning domain.");
  pvd->require_subcommand(1);
  addShow(*pvd, action);
  addToPac(*pvd, action);
}

}  // namespace client
