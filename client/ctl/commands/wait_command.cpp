#include "client/ctl/commands/wait_command.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_bus.h"

namespace client {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kFooter =
    R"(Waits also for a message bus and a daemon that do not run yet, and starts none.
Configured is a daemon that got a configuration since its start. A script is
there if the mode is pacurl or wpad and the script answers for
http://localhost/.

Exit status:
)";

/// The daemon announces itself every 2 s until its first configuration; one that is busy is late.
constexpr std::chrono::seconds kListenTime{5};

/// Between two looks: a person does not notice it, and the daemon's log stays readable.
constexpr std::chrono::milliseconds kPause{250};

struct WaitArguments {
  bool configured = false;
  bool script = false;
  CallOptions call;
};

std::chrono::microseconds left(Clock::time_point end) {
  return std::max(std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now()),
                  std::chrono::microseconds(1));
}

bool isConfigured(DaemonBus& bus, Clock::time_point end) {
  bool announced = false;
  bus.listen(signalRule("ProxyMgrStateEvent"), [&](sd_bus_message*) { announced = true; });
  if (bus.ask("http://localhost/").mode != "off") return true;
  const auto listened = std::min<std::chrono::microseconds>(kListenTime, left(end));
  return !bus.waitFor([&] { return announced; }, listened) && listened == kListenTime;
}

bool hasScript(DaemonBus& bus) {
  const auto answer = bus.ask("http://localhost/");
  return (answer.mode == "pacurl" || answer.mode == "wpad") && !answer.entries.empty();
}

/// @return whether what is waited for is there; a daemon or bus that is not there yet is not
bool look(const WaitArguments& arguments, Clock::time_point end) {
  try {
    DaemonBus bus(left(end));
    bus.startDaemon(false);
    if (!bus.owner()) return false;
    return arguments.script ? hasScript(bus) : isConfigured(bus, end);
  } catch (const Failure& failure) {
    if (failure.status() != kUnavailable && failure.status() != kTryAgain) throw;
    return false;
  }
}

ExitStatus wait(const WaitArguments& arguments) {
  const auto end = Clock::now() + arguments.call.limit;
  while (!look(arguments, end)) {
    if (Clock::now() >= end) {
      throw Failure(kTryAgain, std::string("proxymanagerd has no ") +
                                   (arguments.script ? "script" : "configuration") + " after " +
                                   secondsText(arguments.call.limit) +
                                   "; \"proxymanagerctl status\" shows what it has");
    }
    std::this_thread::sleep_for(std::min<std::chrono::microseconds>(kPause, left(end)));
  }
  return kAnswered;
}

}  // namespace

void addWaitCommand(CLI::App& program, Action& action) {
  auto* const command =
      program.add_subcommand("wait", "Waits until the daemon is ready, for boot order.");
  const auto arguments = std::make_shared<WaitArguments>();
  auto* const configured =
      command->add_flag("--configured", arguments->configured, "Until it got a configuration");
  command->add_flag("--script", arguments->script, "Until it has a script that answers")
      ->excludes(configured);
  addTimeout(*command, arguments->call, kChangeLimit);
  command->footer(kFooter + statusHelp({{kAnswered, "it is ready"}}, kBusStatuses));
  command->callback([arguments, &action] {
    if (!arguments->configured && !arguments->script) {
      throw CLI::RequiredError("--configured or --script");
    }
    action = [arguments] { return wait(*arguments); };
  });
}

}  // namespace client
