#include "client/ctl/commands/watch_command.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "client/ctl/commands/call_options.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/shown_text.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kWatchFooter = R"(Runs until Ctrl-C, also while the daemon does not run.

Output:
  A line for each signal, and for each start and end of the daemon, with its
  time. With --json each line is an object: time, event, and for the event
    daemon                    running (true or false)
    ProxyMgrStateEvent        eventType
    notifyProxyConfigupdated  proxymode, proxyurl, username, password
  The bus gives notifyProxyConfigupdated only to root and to members of the
  group proxymanager, because it contains the password.

Exit status:
)";

constexpr int kNameWidth = 24;  // the length of "notifyProxyConfigupdated"

std::string now() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return shownTime(std::chrono::duration_cast<std::chrono::microseconds>(time).count(), true);
}

constexpr std::array kEndSignals{SIGINT, SIGTERM};

sigset_t endSignalSet() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : kEndSignals) sigaddset(&set, number);
  return set;
}

/// Blocks the signals that end the program, so that they never interrupt a line of output. @return
/// a descriptor that reports these signals
base::UniqueFd endSignals() {
  const auto set = endSignalSet();
  sigprocmask(SIG_BLOCK, &set, nullptr);
  struct sigaction end {};
  end.sa_handler = [](int) { _exit(kAnswered); };
  for (const int number : kEndSignals) sigaction(number, &end, nullptr);
  base::UniqueFd fd(signalfd(-1, &set, SFD_CLOEXEC));
  if (!fd) throw std::system_error(errno, std::generic_category(), "signalfd");
  return fd;
}

/// While this object exists, the signals of endSignalSet() end the program at once. Without such an
/// object, a write could block forever if nobody reads the output, and the program could not end.
class Interruptible {
 public:
  Interruptible() { sigprocmask(SIG_UNBLOCK, &mSet, nullptr); }
  ~Interruptible() { sigprocmask(SIG_BLOCK, &mSet, nullptr); }
  Interruptible(const Interruptible&) = delete;
  Interruptible& operator=(const Interruptible&) = delete;

 private:
  sigset_t mSet = endSignalSet();
};

/// Prints the signals of the daemon, and its starts and ends.
class Watch {
 public:
  explicit Watch(const CallOptions& options) : mOptions(options), mBus(options.limit) {}

  void run() {
    // Subscribes to the signals first. A signal that arrives before the answer about the owner
    // waits until that answer has been handled.
    mBus.listen(signalRule(nullptr), [this](sd_bus_message* signal) { onSignal(signal); });
    mBus.listen(ownerRule(), [this](sd_bus_message* signal) { onOwner(signal); });
    const auto owner = mBus.owner();
    mOwner = owner ? owner->uniqueName : "";
    const auto end = endSignals();
    sayOwner();
    mBus.runUntil(end.get());
  }

 private:
  void say(const char* event, const Json& members, const std::string& value, Tone tone) const {
    const auto time = now();
    const Interruptible writing;
    if (!mOptions.json) {
      printEvent(time, {event, value, tone}, kNameWidth);
      return;
    }
    Json object{{"time", time}, {"event", event}};
    object.update(members);
    printJsonLine(object);
  }

  void sayOwner() const {
    const bool running = !mOwner.empty();
    say("daemon", Json{{"running", running}},
        running ? "runs" : std::string("does not run; ") + kStartIt,
        running ? Tone::kGood : Tone::kBad);
  }

  void onOwner(sd_bus_message* signal) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(signal, "sss", &name, &before, &after) <= 0) return;
    // The answer of mBus.owner() in run() may already include this change.
    if (mOwner == after) return;
    mOwner = after;
    sayOwner();
  }

  void onSignal(sd_bus_message* signal) {
    // Any program can send a signal directly to this connection, so the sender is checked.
    const char* const sender = sd_bus_message_get_sender(signal);
    if (sender == nullptr || mOwner != sender) return;
    const std::string_view member = sd_bus_message_get_member(signal);
    if (member == "notifyClearcache") {
      say("notifyClearcache", Json::object(), "", Tone::kPlain);
    } else if (member == "ProxyMgrStateEvent") {
      onState(signal);
    } else if (member == "notifyProxyConfigupdated") {
      onConfiguration(signal);
    }
  }

  void onState(sd_bus_message* signal) const {
    std::int32_t type = 0;
    if (sd_bus_message_read(signal, "i", &type) <= 0) return;
    const auto text = std::to_string(type);
    say("ProxyMgrStateEvent", Json{{"eventType", type}},
        type == 1 ? text + ": waits for its first configuration" : text, Tone::kPlain);
  }

  void onConfiguration(sd_bus_message* signal) const {
    constexpr std::array kNames{"proxymode", "proxyurl", "username", "password"};
    std::array<const char*, kNames.size()> given{};
    if (sd_bus_message_read(signal, "ssss", &given[0], &given[1], &given[2], &given[3]) <= 0)
      return;
    Json members;
    std::string line;
    for (std::size_t i = 0; i < kNames.size(); ++i) {
      const std::string_view name = kNames[i];
      std::string value = given[i];
      if (name == "password") value = shownPassword(value, mOptions.showPassword);
      if (name == "proxyurl" && !mOptions.showPassword) value = withoutPassword(value);
      members[std::string(name)] = value;
      if (value.empty()) continue;
      if (!line.empty()) line += ' ';
      line += std::string(name) + '=' + value;
    }
    say("notifyProxyConfigupdated", members, line, Tone::kPlain);
  }

  CallOptions mOptions;
  DaemonBus mBus;
  std::string mOwner;  ///< unique name of the daemon on the bus; empty if it does not run
};

}  // namespace

void addWatchCommand(CLI::App& program, Action& action) {
  auto* const command =
      program.add_subcommand("watch", "Shows what the daemon signals, until Ctrl-C.");
  const auto options = std::make_shared<CallOptions>();
  addCallOptions(*command, *options, kAskLimit);
  addShowPassword(*command, *options);
  command->footer(
      std::string(kWatchFooter) +
      statusHelp(
          {{kAnswered, "ended by Ctrl-C or SIGTERM; it goes on when the daemon does not run"}},
          kBusStatuses));
  command->callback([options, &action] {
    action = [options] {
      Watch(*options).run();
      return kAnswered;
    };
  });
}

}  // namespace client
