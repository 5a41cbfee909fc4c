#include "client/ctl/commands/refresh_command.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/terminal/secret.h"

namespace client {

namespace {

constexpr const char* kRefreshFooter =
    R"(Reads the configuration and sends it to the daemon again, so that the daemon
fetches its script again. Authentication is on if a user name or a password is
set.

Exit status:
)";

ExitStatus refresh(const CallOptions& options) {
  DaemonBus bus(options.limit);
  auto configuration = bus.configuration();
  const WipedAtEnd password(configuration.password);
  const WipedAtEnd proxyurl(configuration.proxyurl);  // the old value may contain another password
  const WipedAtEnd pacurl(configuration.pacurl);
  // The daemon always returns "n" for authentication.
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
