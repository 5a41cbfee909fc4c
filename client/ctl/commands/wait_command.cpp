#include "client/ctl/commands/wait_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

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
the script loads. If the script has no answer for this URL and its file is older
than the daemon, only systemd knows the result; without systemd, the exit status
is 75.

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

/// The result of one look at the daemon.
struct Look {
  bool isReady = false;
  /// True in two cases. With --configured: the daemon is in mode off, and the time was too short to
  /// find out whether a program has set this mode. With --script: an earlier daemon may have left
  /// the PAC file.
  bool isUnclear = false;
  /// When the daemon last announced that it has no configuration.
  std::optional<Clock::time_point> announced;
};

Look lookForConfiguration(DaemonBus& bus, const Owner& daemon, Clock::time_point end,
                          const Look& before) {
  if (const auto reported = bus.reportedStatus(daemon)) return {reported->updated != 0, false, {}};
  bool announced = false;
  bus.listen(signalRule("ProxyMgrStateEvent"), [&](sd_bus_message*) { announced = true; });
  if (bus.ask("http://localhost/").mode != "off") return {true, false, {}};
  const auto listen = std::min<std::chrono::microseconds>(kListenTime, timeLeft(end));
  if (bus.waitFor([&] { return announced; }, listen)) return {false, false, Clock::now()};
  const bool isSilent = !before.announced || Clock::now() - *before.announced >= kListenTime;
  return {listen == kListenTime, isSilent, before.announced};
}

/// Whether the daemon has a script. A script can also give an answer without entries. In this case,
/// the daemon's report to systemd shows whether there is a script. Without a report, the PAC file
/// shows this.
Look lookForScript(DaemonBus& bus, const Owner& daemon) {
  const auto answer = bus.ask("http://localhost/");
  if (answer.mode != "pacurl" && answer.mode != "wpad") return {};
  if (!answer.entries.empty()) return {true, false, {}};
  if (const auto reported = bus.reportedStatus(daemon)) return {reported->script != 0, false, {}};
  const auto file = lookAtPacFile(base::kPacFile).file;
  if (!file || !daemon.process || !refusalOf(base::kPacFile).empty()) return {};
  if (!isNewerThan(*file, *daemon.process)) return {false, true, {}};
  return {file->fetched + kLoadTime.count() < microsecondsNow(), false, {}};
}

/// Looks at the daemon once. If there is no daemon or no bus yet, the result is "not ready".
Look look(const WaitArguments& arguments, Clock::time_point end, const Look& before) {
  try {
    DaemonBus bus(timeLeft(end));
    bus.startDaemon(false);
    const auto daemon = bus.owner();
    if (!daemon) return {};
    if (arguments.script) return lookForScript(bus, *daemon);
    return lookForConfiguration(bus, *daemon, end, before);
  } catch (const Failure& failure) {
    if (failure.status() != kUnavailable && failure.status() != kTryAgain) throw;
    return failure.status() == kTryAgain ? before : Look();
  }
}

std::string whyNotReady(const WaitArguments& arguments, const Look& last) {
  const auto limit = secondsText(arguments.call.limit);
  if (last.isUnclear && arguments.script) {
    return "after " + limit +
           ", it is not known whether proxymanagerd has a script: the file is older than the "
           "daemon, or the clock was set; only systemd would know";
  }
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
