#include "client/ctl/commands/relay_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/commands/relay_snippets.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/daemon/relay_unit.h"
#include "client/ctl/failure.h"
#include "client/ctl/terminal/output.h"

namespace client {

namespace {

constexpr const char* kEnableFooter =
    R"(Links snippets of the package proxymanager-relay into /etc/profile.d,
/etc/environment.d and /etc/apt/apt.conf.d, and prints the links. Programs that
are started after the next login use the relay, apt does at once.

Exit status:
)";

constexpr const char* kDisableFooter =
    R"(Removes the links, and prints them. Run this before you stop the socket unit:
after that any program can bind the free port.

Exit status:
)";

void checkRoot() {
  if (geteuid() != 0) throw Failure(kDenied, "only root may set the proxy of all programs");
}

void checkUnit() {
  const auto bus = openSystemBus();
  const auto unit = readRelayUnit(bus.get(), kAskLimit);
  std::string why;
  if (!unit.isInstalled) {
    why = "the relay is not installed: there is no unit ";
    why += kRelaySocketUnit;
  } else if (!unit.isEnabled || !unit.isActive) {
    why = std::string(kRelaySocketUnit) + (unit.isActive ? " is not enabled" : " is not active") +
          ", so another program could take its port: \"systemctl enable --now " + kRelaySocketUnit +
          "\"";
  } else if (!unit.listens) {
    why = std::string(kRelaySocketUnit) + " does not listen at " + kRelayEndpoint +
          ", which the snippets name";
  }
  if (!why.empty()) throw Failure(kUnavailable, why);
}

ExitStatus enable() {
  checkRoot();
  checkUnit();
  for (const auto& link : putRelayLinks()) printLine(link);
  return kAnswered;
}

ExitStatus disable() {
  checkRoot();
  for (const auto& link : removeRelayLinks()) printLine(link);
  return kAnswered;
}

}  // namespace

void addRelayCommand(CLI::App& program, Action& action) {
  auto* const relay =
      program.add_subcommand("relay", "Makes the relay the proxy of programs, or not.");
  relay->require_subcommand(1);
  auto* const on = relay->add_subcommand("enable", "Sets the relay as the proxy of programs.");
  on->footer(kEnableFooter + statusHelp({{kAnswered, "done"},
                                         {kUnavailable,
                                          "the relay's socket unit is not enabled and active, or\n"
                                          "systemd cannot be asked"},
                                         {kDenied, "the caller is not root"}},
                                        {kUsage, kInternal, kOutput}));
  on->callback([&action] { action = enable; });
  auto* const off = relay->add_subcommand("disable", "Takes this setting away.");
  off->footer(kDisableFooter +
              statusHelp({{kAnswered, "done"}, {kDenied, "the caller is not root"}},
                         {kUsage, kInternal, kOutput}));
  off->callback([&action] { action = disable; });
}

}  // namespace client
