#include "client/ctl/commands/config_command.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/shown_text.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kConfigFooter = R"(Output:
  The configuration in force. With --json an object: mode, proxyurl, pacurl,
  enableauth (always "n"; a user name shows that the proxy has a login),
  userName, password; null for a value that is not set.

Exit status:
)";

Json jsonOf(const Configuration& configuration) {
  const auto value = [](const std::string& text) { return text.empty() ? Json() : Json(text); };
  Json object;
  object["mode"] = configuration.mode;
  object["proxyurl"] = value(configuration.proxyurl);
  object["pacurl"] = value(configuration.pacurl);
  object["enableauth"] = configuration.enableauth;
  object["userName"] = value(configuration.userName);
  object["password"] = value(configuration.password);
  return object;
}

void printTable(const Configuration& configuration) {
  std::vector<Row> rows{{"mode", configuration.mode}};
  const auto add = [&rows](std::string_view name, const std::string& value) {
    rows.push_back(value.empty() ? Row{name, "(not set)", Tone::kFaint} : Row{name, value});
  };
  add("proxy URL", configuration.proxyurl);
  add("PAC URL", configuration.pacurl);
  add("user", configuration.userName);
  add("password", configuration.password);
  printBlock("configuration", rows);
}

ExitStatus showConfiguration(const CallOptions& options) {
  DaemonBus bus(options.limit);
  auto configuration = bus.configuration();
  configuration.password = shownPassword(configuration.password, options.showPassword);
  if (!options.showPassword) {
    configuration.proxyurl = withoutPassword(configuration.proxyurl);
    configuration.pacurl = withoutPassword(configuration.pacurl);
  }
  if (options.json) {
    printJson(jsonOf(configuration));
  } else {
    printTable(configuration);
  }
  return kAnswered;
}

}  // namespace

void addConfigCommand(CLI::App& program, Action& action) {
  auto* const command = program.add_subcommand("config", "Shows the configuration in force.");
  const auto options = std::make_shared<CallOptions>();
  addCallOptions(*command, *options, kAskLimit);
  addShowPassword(*command, *options);
  command->footer(std::string(kConfigFooter) + statusHelp({{kAnswered, "done"}}, kBusStatuses));
  command->callback(
      [options, &action] { action = [options] { return showConfiguration(*options); }; });
}

}  // namespace client
