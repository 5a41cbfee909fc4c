#include "client/ctl/commands/settings_command.h"

#include <CLI/CLI.hpp>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/commands/saved_settings.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/shown_text.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kSettingsFooter = R"(Output:
  Which source of the configuration is in force and why, the settings of each
  source, and the configuration that the daemon has received. With --json the
  object that the settings service reports.

Exit status:
)";

std::string textOf(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

bool isSet(const Json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_boolean() && found->get<bool>();
}

/// The mode and the URL of a configuration: "manual http://proxy.example:3128".
std::string shownConfiguration(const Json& configuration) {
  std::string text = textOf(configuration, "mode");
  for (const char* key : {"proxy_url", "pac_url"}) {
    const std::string url = textOf(configuration, key);
    if (!url.empty()) text += " " + url;
  }
  if (isSet(configuration, "authentication")) text += ", with user and password";
  return text;
}

std::string shownNetwork(const Json& network) {
  const std::string interface = textOf(network, "interface");
  std::string text = interface.empty() ? "(no interface): " : interface + ": ";
  if (isSet(network, "direct")) {
    text += "direct";
  } else if (!isSet(network, "usable")) {
    text += "cannot be used";
  } else if (isSet(network, "script")) {
    text += "a script";
  } else {
    text += shownConfiguration(network);
  }
  return text;
}

Row daemonRow(const Json& state) {
  if (!isSet(state, "daemon")) return {"daemon", "does not run", Tone::kBad};
  if (const std::string problem = textOf(state, "problem"); !problem.empty()) {
    return {"daemon", "the last hand-over failed: " + problem, Tone::kBad};
  }
  if (isSet(state, "changed_by_another_program")) {
    return {"daemon", "another program has changed its configuration", Tone::kBad};
  }
  const auto time = state.find("handed_over_at");
  if (time == state.end() || !time->is_number_integer()) {
    return {"daemon", "has not got the configuration yet", Tone::kBad};
  }
  const auto ago = std::time(nullptr) - time->get<std::int64_t>();
  return {"daemon", "got it " + shownAge(ago) + " ago", Tone::kGood};
}

void printState(const Json& state) {
  std::vector<Row> rows{{"source", textOf(state, "source")},
                        {"in force", textOf(state, "holder"), Tone::kGood},
                        {"because", textOf(state, "reason")},
                        {"wanted", shownConfiguration(state.value("wanted", Json::object()))}};
  for (const auto& file : state.value("mode_files", Json::array())) {
    if (file.is_string()) rows.push_back({"file", file.get<std::string>()});
  }
  for (const auto& network : state.value("networks", Json::array())) {
    const bool holds = isSet(network, "holds");
    rows.push_back({"network", shownNetwork(network), holds ? Tone::kGood : Tone::kFaint});
  }
  for (const auto& problem : state.value("problems", Json::array())) {
    if (problem.is_string()) rows.push_back({"problem", problem.get<std::string>(), Tone::kBad});
  }
  if (isSet(state, "last_good_settings")) {
    rows.push_back({"problem", "the last good settings are used", Tone::kBad});
  }
  rows.push_back(daemonRow(state));
  if (const auto found = state.find("daemon_has"); found != state.end() && found->is_object()) {
    rows.push_back({"daemon has", shownConfiguration(*found)});
  }
  printBlock("settings", rows);
}

ExitStatus showSettings(const CallOptions& options) {
  DaemonBus bus(options.limit);
  const auto state = Json::parse(bus.settingsState(), nullptr, false);
  if (!state.is_object()) {
    throw Failure(
        kProtocol,
        "the owner of the settings service's bus name sent a reply that the service never sends");
  }
  if (options.json) {
    printJson(state);
  } else {
    printState(state);
  }
  return kAnswered;
}

ExitStatus reset() {
  if (!resetSettings()) complain("nothing was saved");
  return kAnswered;
}

}  // namespace

void addSettingsCommand(CLI::App& program, Action& action) {
  auto* const command =
      program.add_subcommand("settings", "Shows the source of the configuration.");
  const auto options = std::make_shared<CallOptions>();
  addCallOptions(*command, *options, kAskLimit);
  command->footer(std::string(kSettingsFooter) + statusHelp({{kAnswered, "done"}}, kBusStatuses));
  auto* const resetting =
      command->add_subcommand("reset", "Removes what --save has written. Needs root.");
  resetting->footer("Exit status:\n" +
                    statusHelp({{kAnswered, "done"}}, {kUsage, kInternal, kOutput, kDenied}));
  resetting->callback([&action] { action = reset; });
  command->callback([command, options, &action] {
    if (command->get_subcommands().empty()) action = [options] { return showSettings(*options); };
  });
}

}  // namespace client
