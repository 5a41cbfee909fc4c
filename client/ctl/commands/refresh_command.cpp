#include "client/ctl/commands/refresh_command.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/secret.h"

namespace client {

namespace {

constexpr const char* kRefreshFooter =
    R"(Reads the configuration and sends it to the daemon again, so that the daemon
fetches its script again. Authentication is on if a user name or a password is
set. In mode off nothing is sent, because there is no script. The command never
starts the daemon.

Exit status:
)";

/// Without systemd, it is not known whether a program has set mode off.
ExitStatus endWithoutScript(DaemonBus& bus) {
  const auto daemon = bus.owner();
  const auto reported = daemon ? bus.reportedStatus(*daemon) : std::nullopt;
  if (reported && reported->updated == 0) {
    throw Failure(kTryAgain, "proxymanagerd has no configuration yet; there is no script to fetch");
  }
  complain("mode off has no script; nothing is fetched");
  return kAnswered;
}

ExitStatus refresh(const CallOptions& options) {
  DaemonBus bus(options.limit);
  bus.startDaemon(false);
  auto configuration = bus.configuration();
  const WipedAtEnd password(configuration.password);
  const WipedAtEnd proxyurl(configuration.proxyurl);  // the old value may contain another password
  const WipedAtEnd pacurl(configuration.pacurl);
  // A daemon without a configuration is in mode off, too. If this command sent mode off to such a
  // daemon, the daemon would count as configured.
  if (configuration.mode == "off") return endWithoutScript(bus);
  // The daemon always returns "n" for authentication, so the credentials show whether it is on.
  const bool hasCredentials = !configuration.userName.empty() || !configuration.password.empty();
  configuration.enableauth = hasCredentials ? "y" : "n";
  if (bus.update(configuration) < 0) throw endingDaemon();
  return kAnswered;
}

}  // namespace

void addRefreshCommand(CLI::App& program, Action& action) {
  auto* const command = program.add_subcommand("refresh", "Fetches the script again.");
  const auto options = std::make_shared<CallOptions>();
  addTimeout(*command, *options, kChangeLimit);
  command->footer(
      kRefreshFooter +
      statusHelp({{kAnswered, "done; a script is then fetched in the background"}}, kBusStatuses));
  command->callback([options, &action] { action = [options] { return refresh(*options); }; });
}

}  // namespace client
