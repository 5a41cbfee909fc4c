// What is known of the daemon comes from four places, each of which may say nothing: the bus itself
// (who has the name), the daemon's answers (which only some may have), its announcements (which it
// makes until its first configuration), and the PAC file on disk. So each value stands for itself:
// there, or missing for a reason that is told.
//
// Asking never starts a daemon. Who may not read the configuration still learns the mode, and the
// manual proxy, from the answer for a URL, as every program of the device does. It is not asked
// with an empty URL, which the daemon would log as an error.
#include "client/ctl/commands/status_command.h"

#include <pwd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ctl/commands/call_options.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/daemon/pac_file.h"
#include "client/ctl/exit_text.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/library/proxy_answer.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kFooter = R"(Output:
  What cannot be known has its reason beside it. Who may not read the
  configuration gets the mode and the manual proxy from the answer for a URL.
  A daemon in mode off is listened to for 5 seconds: while it waits for its
  first configuration it says so every 2.
  With --json an object: running, process, user, answers, waiting, mode,
  proxyurl, pacurl, userName, password, pacfile (an object: path, exists, bytes,
  fetched, age in seconds, sha256) and unknown. The last is an object that holds
  the reason for each of running, answers, waiting, mode, proxyurl, pacurl,
  userName and password that is null as it cannot be known, for answers where it
  is false, and for a pacfile that is there and cannot be read. Without a reason
  null is what is not set; process and user, where the bus does not name them;
  and the last four of pacfile, where there is no file to be read.

Exit status:
  0    the daemon runs and answers
)";

/// The daemon announces itself every 2 s until its first configuration; one that is busy is late,
/// or misses one.
constexpr std::chrono::seconds kListenTime{5};

/// Asked for where the configuration may not be read. A script has to answer for it, too.
constexpr const char* kProbeUrl = "http://localhost/";

constexpr const char* kNobody = "the daemon does not run";

/// A value, or why it is not known. Neither where it is not set.
struct Fact {
  std::optional<std::string> value;
  std::string unknown;
};

Fact known(const std::string& text) {
  return text.empty() ? Fact{} : Fact{text, {}};
}

struct Status {
  ExitStatus status = kAnswered;
  std::optional<bool> running;
  std::string whyNotRunning;
  std::optional<Owner> owner;
  std::optional<bool> answers;
  std::string whyNoAnswer;
  std::optional<bool> waiting;
  std::string whyWaitingUnknown;
  Fact mode;
  Fact proxyurl;
  Fact pacurl;
  Fact userName;
  Fact password;
  PacFileState pac;
};

void setUnknown(Status& status, const std::string& why) {
  for (auto* const fact :
       {&status.mode, &status.proxyurl, &status.pacurl, &status.userName, &status.password}) {
    *fact = {std::nullopt, why};
  }
}

/// Where the configuration may not be read.
void learnByAsking(DaemonBus& bus, Status& status, const std::string& why) {
  setUnknown(status, why);
  const auto answer = parseAnswer(bus.proxyUrls(kProbeUrl));
  if (!answer) throw endingDaemon();
  status.mode = known(answer->mode);
  if (answer->mode == "manual") status.proxyurl = known(answer->entries.front().text);
  // These modes have no such URL.
  if (answer->mode != "manual") status.proxyurl = {};
  if (answer->mode != "pacurl") status.pacurl = {};
}

/// @return whether the configuration was given by somebody
bool learnConfiguration(DaemonBus& bus, Status& status) {
  try {
    const auto read = bus.configuration();
    status.mode = known(read.mode);
    status.proxyurl = known(read.proxyurl);
    status.pacurl = known(read.pacurl);
    status.userName = known(read.userName);
    status.password = known(read.password);
    return read.mode != "off" || !read.userName.empty();
  } catch (const Failure& failure) {
    if (failure.status() != kDenied) throw;
    learnByAsking(bus, status, failure.what());
    return status.mode.value != "off";
  }
}

/// Asks the daemon, which has the name, for what it knows.
void learnFromDaemon(DaemonBus& bus, Status& status, std::chrono::microseconds limit) {
  bool announced = false;
  bus.listen(signalRule("ProxyMgrStateEvent"), [&](sd_bus_message* signal) {
    const char* const sender = sd_bus_message_get_sender(signal);
    if (sender != nullptr && status.owner->uniqueName == sender) announced = true;
  });
  if (!bus.checkStarted()) throw endingDaemon();
  status.answers = true;
  status.waiting = false;
  if (learnConfiguration(bus, status)) return;
  const auto listen = std::min<std::chrono::microseconds>(kListenTime, limit);
  status.waiting = bus.waitFor([&] { return announced; }, listen);
  if (*status.waiting || listen == kListenTime) return;
  status.waiting.reset();
  status.whyWaitingUnknown =
      "--timeout leaves less than the " + secondsText(kListenTime) + " that it takes to hear of it";
}

Status learn(const CallOptions& options) {
  Status status;
  status.pac = lookAtPacFile(kPacFile);
  setUnknown(status, kNobody);
  status.whyNoAnswer = kNobody;
  status.whyWaitingUnknown = kNobody;
  try {
    DaemonBus bus(options.limit);
    bus.startDaemon(false);
    status.owner = bus.owner();
    status.running = status.owner.has_value();
    if (!*status.running) {
      status.status = kUnavailable;
      status.whyNotRunning = kStartIt;
      return status;
    }
    status.answers = false;
    learnFromDaemon(bus, status, options.limit);
  } catch (const Failure& failure) {
    status.status = failure.status();
    status.whyNoAnswer = failure.what();
    if (!status.running) status.whyNotRunning = failure.what();
    setUnknown(status, failure.what());
    status.waiting.reset();
    status.whyWaitingUnknown = failure.what();
    const bool asked = status.running && failure.status() != kDenied;
    status.answers = asked ? std::optional(false) : std::nullopt;
  }
  return status;
}

std::string userName(std::uint32_t user) {
  const auto* const entry = getpwuid(user);
  return entry == nullptr ? std::to_string(user) : entry->pw_name;
}

/// Seconds since the script was fetched.
std::int64_t ageOf(const PacFile& file) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  return std::max<std::int64_t>((microseconds - file.fetched) / 1'000'000, 0);
}

/// What is to be said about the file beside its contents; mostly nothing.
std::string remarkOn(const Status& status) {
  const auto& file = *status.pac.file;
  // Whom the daemon runs as only a running one tells.
  const auto daemonsUser = status.owner ? status.owner->user : std::nullopt;
  if (file.owner != 0 && daemonsUser && *daemonsUser != file.owner) {
    return "it belongs to " + userName(file.owner) + ", so the daemon does not read it";
  }
  if (status.mode.value == "off" || status.mode.value == "manual") {
    return "left from before: mode " + *status.mode.value + " does not use it";
  }
  return {};
}

void hidePasswords(Status& status) {
  for (auto* const url : {&status.proxyurl, &status.pacurl}) {
    if (url->value) url->value = withoutPassword(*url->value);
  }
  if (status.password.value) status.password.value = kHidden;
}

class Table {
 public:
  void add(std::string_view name, std::string value, Tone tone = Tone::kPlain) {
    mRows.push_back({name, std::move(value), tone});
  }
  void add(std::string_view name, const Fact& fact) {
    if (fact.value) {
      add(name, *fact.value);
    } else if (!fact.unknown.empty()) {
      addUnknown(name, fact.unknown);
    } else {
      add(name, "(not set)", Tone::kFaint);
    }
  }
  void addUnknown(std::string_view name, const std::string& why) {
    add(name, "unknown: " + why, Tone::kFaint);
  }
  void print(std::string_view title) const { printBlock(title, mRows); }

 private:
  std::vector<Row> mRows;
};

void addPacFile(Table& table, const Status& status) {
  if (!status.pac.file) {
    table.add("PAC file", status.pac.isThere ? kPacFile + (": " + status.pac.problem) : "none",
              status.pac.isThere ? Tone::kBad : Tone::kFaint);
    return;
  }
  const auto& file = *status.pac.file;
  const auto remark = remarkOn(status);
  table.add("PAC file", kPacFile + (remark.empty() ? "" : " (" + remark + ')'));
  table.add("size", std::to_string(file.bytes) + " bytes");
  table.add("fetched", shownTime(file.fetched, false) + ", " + shownAge(ageOf(file)) + " ago");
  table.add("SHA-256", file.sha256);
}

void printTable(const Status& status) {
  Table table;
  if (!status.running) {
    table.addUnknown("running", status.whyNotRunning);
  } else if (!*status.running) {
    table.add("running", "no; " + status.whyNotRunning, Tone::kBad);
  } else {
    std::string who = "yes";
    if (status.owner->process) who += ", process " + std::to_string(*status.owner->process);
    if (status.owner->user) who += ", user " + userName(*status.owner->user);
    table.add("running", std::move(who), Tone::kGood);
    if (!status.answers) {
      table.addUnknown("answers", status.whyNoAnswer);
    } else if (!*status.answers) {
      table.add("answers", "no: " + status.whyNoAnswer, Tone::kBad);
    } else {
      table.add("answers", "yes", Tone::kGood);
      if (!status.waiting) {
        table.addUnknown("configured", status.whyWaitingUnknown);
      } else if (*status.waiting) {
        table.add("configured", "no, it waits for its first configuration", Tone::kBad);
      } else {
        table.add("configured", "yes", Tone::kGood);
      }
      table.add("mode", status.mode);
      table.add("proxy URL", status.proxyurl);
      table.add("PAC URL", status.pacurl);
      table.add("user", status.userName);
      table.add("password", status.password);
    }
  }
  addPacFile(table, status);
  table.print("proxymanagerd");
}

Json jsonOf(const PacFileState& pac) {
  Json object{{"path", kPacFile}, {"exists", pac.isThere}};
  const auto& file = pac.file;
  object["bytes"] = file ? Json(file->bytes) : Json();
  object["fetched"] = file ? Json(shownTime(file->fetched, false)) : Json();
  object["age"] = file ? Json(ageOf(*file)) : Json();
  object["sha256"] = file ? Json(file->sha256) : Json();
  return object;
}

Json jsonOf(const Status& status) {
  Json object;
  Json unknown = Json::object();
  const auto flag = [&](const char* name, std::optional<bool> value, const std::string& why) {
    object[name] = value ? Json(*value) : Json();
    if (!value && !why.empty()) unknown[name] = why;
  };
  const auto fact = [&](const char* name, const Fact& given) {
    object[name] = given.value ? Json(*given.value) : Json();
    if (!given.value && !given.unknown.empty()) unknown[name] = given.unknown;
  };
  flag("running", status.running, status.whyNotRunning);
  const auto& owner = status.owner;
  object["process"] = owner && owner->process ? Json(*owner->process) : Json();
  object["user"] = owner && owner->user ? Json(userName(*owner->user)) : Json();
  flag("answers", status.answers, status.whyNoAnswer);
  if (status.answers == false) unknown["answers"] = status.whyNoAnswer;
  flag("waiting", status.waiting, status.whyWaitingUnknown);
  fact("mode", status.mode);
  fact("proxyurl", status.proxyurl);
  fact("pacurl", status.pacurl);
  fact("userName", status.userName);
  fact("password", status.password);
  object["pacfile"] = jsonOf(status.pac);
  if (status.pac.isThere && !status.pac.file) unknown["pacfile"] = status.pac.problem;
  object["unknown"] = std::move(unknown);
  return object;
}

ExitStatus showStatus(const CallOptions& options) {
  auto status = learn(options);
  if (!options.showPassword) hidePasswords(status);
  if (options.json) {
    printJson(jsonOf(status));
  } else {
    printTable(status);
  }
  return status.status;
}

}  // namespace

void addStatusCommand(CLI::App& program, Action& action) {
  auto* const command = program.add_subcommand("status", "Shows what is known of the daemon.");
  const auto options = std::make_shared<CallOptions>();
  addCallOptions(*command, *options, kAskLimit);
  addShowPassword(*command, *options);
  command->footer(std::string(kFooter) + kBusStatuses);
  command->callback([options, &action] { action = [options] { return showStatus(*options); }; });
}

}  // namespace client
