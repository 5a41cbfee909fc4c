#include "client/ctl/commands/wait_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "base/daemon_status.h"
#include "base/paths.h"
#include "client/ctl/commands/call_options.h"
#include "client/ctl/commands/script_refusal.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/daemon/pac_file.h"

namespace client {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kWaitFooter =
    R"(Waits also for a message bus and a daemon that do not run yet, and starts none.
--configured waits until the daemon has got a configuration since its start.
Without systemd, to tell mode off from "no configuration yet" takes 5 seconds:
a daemon without a configuration announces itself every 2 seconds. If less time
is left, the result is not known: the exit status is 75, and the message has
the reason.
--script waits until the mode is pacurl or wpad and the script answers for
http://localhost/, or until the daemon has fetched a script since its start and
the script loads.

Exit status:
)";

/// Until its first configuration the daemon announces itself every 2 s (kAnnouncementPause in
/// service/proxy_manager_service_impl.cpp). A busy daemon announces itself late.
constexpr std::chrono::seconds kListenTime{5};

/// The pause between two questions. It is too short for a person to notice, and long enough to keep
/// the daemon's log readable.
constexpr std::chrono::milliseconds kPause{250};

/// The longest time from the moment when the script file is in its place to the start of the load.
/// During the load itself, questions wait.
constexpr std::chrono::microseconds kLoadTime{1'000'000};

struct WaitArguments {
  bool configured = false;
  bool script = false;
  CallOptions call;
};

std::int64_t microsecondsNow() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

std::chrono::microseconds timeLeft(Clock::time_point end) {
  return std::max(std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now()),
                  std::chrono::microseconds(1));
}

std::optional<base::DaemonStatus> reportedBy(DaemonBus& bus, const Owner& daemon) {
  const auto line = daemon.process ? bus.serviceStatus(*daemon.process) : std::nullopt;
  return line ? base::parseDaemonStatus(*line) : std::nullopt;
}

/// What one look at the daemon shows.
struct Look {
  bool isReady = false;
  /// The daemon is in mode off, and was silent for less than kListenTime.
  bool isUnclear = false;
  /// When the daemon last announced that it has no configuration.
  std::optional<Clock::time_point> announced;
};

Look lookForConfiguration(DaemonBus& bus, const Owner& daemon, Clock::time_point end,
                          const Look& before) {
  if (const auto reported = reportedBy(bus, daemon)) return {reported->updated != 0, false, {}};
  bool announced = false;
  bus.listen(signalRule("ProxyMgrStateEvent"), [&](sd_bus_message*) { announced = true; });
  if (bus.ask("http://localhost/").mode != "off") return {true, false, {}};
  const auto listen = std::min<std::chrono::microseconds>(kListenTime, timeLeft(end));
  if (bus.waitFor([&] { return announced; }, listen)) return {false, false, Clock::now()};
  const bool isSilent = !before.announced || Clock::now() - *before.announced >= kListenTime;
  return {listen == kListenTime, isSilent, before.announced};
}

/// Whether this daemon has fetched the script in the PAC file, and not an earlier daemon.
bool hasFetched(DaemonBus& bus, const Owner& daemon) {
  const auto reported = reportedBy(bus, daemon);
  const auto file = lookAtPacFile(base::kPacFile).file;
  if (!file || !daemon.process || !isFetchedBy(*daemon.process, *file, reported)) return false;
  return reported || file->fetched + kLoadTime.count() < microsecondsNow();
}

/// Whether the daemon has a script. A script may have no answer for the URL of the question.
bool hasScript(DaemonBus& bus, const Owner& daemon) {
  const auto answer = bus.ask("http://localhost/");
  if (answer.mode != "pacurl" && answer.mode != "wpad") return false;
  if (!answer.entries.empty()) return true;
  return hasFetched(bus, daemon) && refusalOf(base::kPacFile).empty();
}

/// @return not ready if there is no daemon or no bus yet
Look look(const WaitArguments& arguments, Clock::time_point end, const Look& before) {
  try {
    DaemonBus bus(timeLeft(end));
    bus.startDaemon(false);
    const auto daemon = bus.owner();
    if (!daemon) return {};
    if (arguments.script) return {hasScript(bus, *daemon), false, {}};
    return lookForConfiguration(bus, *daemon, end, before);
  } catch (const Failure& failure) {
    if (failure.status() != kUnavailable && failure.status() != kTryAgain) throw;
    return failure.status() == kTryAgain ? before : Look();
  }
}

std::string whyNotReady(const WaitArguments& arguments, const Look& last) {
  const auto limit = secondsText(arguments.call.limit);
  if (last.isUnclear) {
    return "proxymanagerd is in mode off after " + limit +
           ", but it is not known whether a program has set this mode: without systemd, that takes " +
           secondsText(kListenTime);
  }
  return std::string("proxymanagerd has no ") + (arguments.script ? "script" : "configuration") +
         " after " + limit + "; \"proxymanagerctl status\" shows what it has";
}

ExitStatus wait(const WaitArguments& arguments) {
  const auto end = Clock::now() + arguments.call.limit;
  Look seen;
  for (;;) {
    seen = look(arguments, end, seen);
    if (seen.isReady) return kAnswered;
    if (Clock::now() >= end) throw Failure(kTryAgain, whyNotReady(arguments, seen));
    std::this_thread::sleep_for(std::min<std::chrono::microseconds>(kPause, timeLeft(end)));
  }
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
  command->footer(kWaitFooter + statusHelp({{kAnswered, "it is ready"}}, kBusStatuses));
  command->callback([arguments, &action] {
    if (!arguments->configured && !arguments->script) {
      throw CLI::RequiredError("--configured or --script");
    }
    action = [arguments] { return wait(*arguments); };
  });
}

}  // namespace client
