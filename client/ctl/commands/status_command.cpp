// The state of the daemon comes from four sources: the bus (the owner of the name), the daemon's
// answers (not every user may ask), the daemon's announcements (only until its first
// configuration), and the PAC file on disk. Each source may fail. So each value is independent of
// the others: either it is known, or it is missing and has a reason.
//
// The command never starts a daemon. A user who may not read the configuration still gets the mode
// and the manual proxy. They are in the answer for a URL, which every program of the device may
// get. The URL of that question is not empty, because the daemon logs an empty URL as an error.
#include "client/ctl/commands/status_command.h"

#include <pwd.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/daemon_status.h"
#include "base/paths.h"
#include "client/ctl/commands/call_options.h"
#include "client/ctl/commands/relay_state.h"
#include "client/ctl/commands/script_refusal.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/daemon/pac_file.h"
#include "client/ctl/terminal/output.h"
#include "client/ctl/terminal/shown_text.h"
#include "client/library/proxy_answer.h"

namespace client {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kStatusFooter = R"(Output:
  The row "script" shows whether the daemon can use the script in the PAC file:
  this command loads it as "pac check" does. The daemon reports its last update
  and its last walk over the URLs of scripts to systemd, and this command reads
  them there. A value that is not known has the reason beside it. A user who may
  not read the configuration gets the mode and the manual proxy from the answer
  for a URL.
  Without systemd, if the daemon is in mode off, the command listens for 5
  seconds: a daemon that waits for its first configuration announces itself
  every 2 seconds.

  With --json an object:
    running, answers, waiting        true, false or null
    process, user                    of the daemon
    mode, proxyurl, pacurl, userName, password
    updated, walked                  times
    walking                          whether a walk is in progress: true, false
                                     or null
    walk                             the result of the last walk
    pacfile   an object: path, exists, bytes, fetched, age (in seconds), sha256,
              loads and refusal
    relay     an object: default (whether programs use proxymanager-relay), and
              installed, enabled and active of its socket unit
    unknown   an object: the reason for each member that is null because it is
              not known, for "answers" if it is false, for a PAC file that
              cannot be read, and for a relay whose socket unit is not known
  A member that is null without a reason is not set, or did not happen since the
  start of the daemon.

Exit status:
)";

/// Until its first configuration the daemon announces itself every 2 s (kAnnouncementPause in
/// service/proxy_manager_service_impl.cpp). A busy daemon announces itself late, or misses one
/// announcement.
constexpr std::chrono::seconds kListenTime{5};

/// The longest tick of a slow kernel, in microseconds.
constexpr std::int64_t kClockTick = 10'000;

/// The URL of the question if the user may not read the configuration. The script then has to
/// answer this question, too.
constexpr const char* kProbeUrl = "http://localhost/";

/// The command that shows the daemon's log, as advice if something is wrong.
constexpr const char* kLog = "journalctl -t proxymanager_service";

constexpr const char* kNobody = "the daemon does not run";

/// A value, or the reason why the value is not known. An object that was not set has neither.
template <typename T>
struct Known {
  std::optional<T> value;
  std::string unknown;
};
using Fact = Known<std::string>;

Fact known(const std::string& text) {
  return text.empty() ? Fact{} : Fact{text, {}};
}

struct Status {
  ExitStatus status = kAnswered;
  Known<bool> running;
  std::optional<Owner> owner;
  Known<bool> answers;  ///< if false, `unknown` has the reason
  Known<bool> waiting;
  Fact mode;
  Fact proxyurl;
  Fact pacurl;
  Fact userName;
  Fact password;
  Known<base::DaemonStatus> reported;  ///< the status that the daemon reported to systemd
  Known<bool> walking;
  PacFileState pac;
  RelayState relay;
  /// Why the script in the PAC file is refused; empty if the script loads. It has no value if there
  /// is no PAC file.
  std::optional<std::string> refusal;
};

void setUnknown(Status& status, const std::string& why) {
  for (auto* const fact :
       {&status.mode, &status.proxyurl, &status.pacurl, &status.userName, &status.password}) {
    *fact = {std::nullopt, why};
  }
}

/// Gets the mode and the manual proxy from the answer to a question about kProbeUrl, for a user who
/// may not read the configuration. `why` is shown for the values that stay unknown.
void learnByAsking(DaemonBus& bus, Status& status, const std::string& why) {
  setUnknown(status, why);
  const auto answer = bus.ask(kProbeUrl);
  status.mode = known(answer.mode);
  if (answer.mode == "manual") status.proxyurl = known(answer.entries.front().text);
  // The modes other than manual have no proxy URL.
  if (answer.mode != "manual") status.proxyurl = {};
  if (answer.mode != "pacurl") status.pacurl = {};
}

/// Reads the configuration into `status`. @return whether a program has set the configuration
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

/// Reads the daemon's own answers and announcements into `status`.
void learnFromDaemon(DaemonBus& bus, Status& status, std::chrono::microseconds limit) {
  bool announced = false;
  bus.listen(signalRule("ProxyMgrStateEvent"), [&](sd_bus_message* signal) {
    const char* const sender = sd_bus_message_get_sender(signal);
    if (sender != nullptr && status.owner->uniqueName == sender) announced = true;
  });
  if (!bus.checkStarted()) throw endingDaemon();
  status.answers.value = true;
  status.waiting.value = false;
  if (learnConfiguration(bus, status)) return;
  if (status.reported.value) {
    status.waiting.value = status.reported.value->updated == 0;
    return;
  }
  const auto listen = std::min<std::chrono::microseconds>(kListenTime, limit);
  status.waiting.value = bus.waitFor([&] { return announced; }, listen);
  if (*status.waiting.value || listen == kListenTime) return;
  status.waiting = {std::nullopt, "--timeout leaves less than the " + secondsText(kListenTime) +
                                      " that it takes to hear of it"};
}

Known<base::DaemonStatus> reportedBy(DaemonBus& bus, const Owner& daemon) {
  const auto line = daemon.process ? bus.serviceStatus(*daemon.process) : std::nullopt;
  if (!line) return {std::nullopt, "the daemon runs without systemd"};
  auto reported = base::parseDaemonStatus(*line);
  if (!reported) return {std::nullopt, "systemd has another status: " + *line};
  return {std::move(reported), {}};
}

/// Whether a walk is in progress: the daemon tries the candidate URLs one after the other. Without
/// a report to systemd, only kPacDownload can show this: a download writes this file, and removes
/// it at its end.
Known<bool> isWalking(const Owner& daemon, const Known<base::DaemonStatus>& reported) {
  if (reported.value) return {reported.value->walking != 0, {}};
  struct stat status {};
  const bool isThere = lstat(base::kPacDownload, &status) == 0 && S_ISREG(status.st_mode);
  if (isThere && daemon.user && status.st_uid == *daemon.user) return {true, {}};
  return {std::nullopt, reported.unknown};
}

Status learn(const CallOptions& options) {
  Status status;
  status.pac = lookAtPacFile(base::kPacFile);
  if (status.pac.file) status.refusal = refusalOf(base::kPacFile);
  status.relay.isDefault = isRelayDefault();
  setUnknown(status, kNobody);
  status.reported.unknown = kNobody;
  status.walking.unknown = kNobody;
  status.answers.unknown = kNobody;
  status.waiting.unknown = kNobody;
  try {
    DaemonBus bus(options.limit);
    bus.startDaemon(false);
    status.owner = bus.owner();
    status.relay = lookAtRelay(bus.handle(), options.limit);
    status.running.value = status.owner.has_value();
    if (!*status.running.value) {
      status.status = kUnavailable;
      status.running.unknown = kStartIt;
      return status;
    }
    status.reported = reportedBy(bus, *status.owner);
    status.walking = isWalking(*status.owner, status.reported);
    status.answers.value = false;
    learnFromDaemon(bus, status, options.limit);
  } catch (const Failure& failure) {
    status.status = failure.status();
    if (!status.relay.unit && status.relay.unknown.empty()) status.relay.unknown = failure.what();
    if (!status.running.value) {
      status.running.unknown = failure.what();
      status.reported.unknown = failure.what();
      status.walking.unknown = failure.what();
    }
    setUnknown(status, failure.what());
    const bool asked = status.running.value && failure.status() != kDenied;
    status.answers = {asked ? std::optional(false) : std::nullopt, failure.what()};
    status.waiting = {std::nullopt, failure.what()};
  }
  return status;
}

std::string userName(std::uint32_t user) {
  const auto* const entry = getpwuid(user);
  return entry == nullptr ? std::to_string(user) : entry->pw_name;
}

/// Seconds since `time`, which is in microseconds since 1970.
std::int64_t ageOf(std::int64_t time) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(now).count();
  return std::max<std::int64_t>((microseconds - time) / 1'000'000, 0);
}

std::string shownWithAge(std::int64_t time) {
  return shownTime(time, false) + ", " + shownAge(ageOf(time)) + " ago";
}

/// Whether the PAC file belongs to a user whose file the daemon does not read. The daemon's user is
/// known only while the daemon runs.
bool isForeign(const Status& status) {
  const auto owner = status.pac.file->owner;
  const auto daemonsUser = status.owner ? status.owner->user : std::nullopt;
  return owner != 0 && daemonsUser && *daemonsUser != owner;
}

/// Whether the PAC file of the time `fetched`, in microseconds, is older than the last update.
bool isOlderThanUpdate(std::int64_t fetched, const base::DaemonStatus& reported) {
  constexpr std::int64_t kSecond = 1'000'000;
  // The clock for file times is up to one tick late.
  if (fetched + kClockTick < reported.updated * kSecond) return true;
  // The fraction of the second of the update is not known. But a walk that fails at once writes no
  // file. So if the walk after the update failed at once and the daemon has a script, the file is
  // from a walk before the update.
  const bool failedAtOnce = reported.result.starts_with("no ") && reported.walking == 0 &&
                            reported.walked >= reported.updated &&
                            reported.walked - reported.updated <= 1;
  return failedAtOnce && reported.script != 0 && fetched < (reported.updated + 1) * kSecond;
}

/// A remark about the PAC file, but not about its content. Usually empty.
std::string remarkOn(const Status& status) {
  const auto& file = *status.pac.file;
  if (isForeign(status)) {
    return "it belongs to " + userName(file.owner) + ", so the daemon does not read it";
  }
  if (status.mode.value == "off" || status.mode.value == "manual") {
    return "left from before: mode " + *status.mode.value + " does not use it";
  }
  const auto& reported = status.reported.value;
  return reported && isOlderThanUpdate(file.fetched, *reported) ? "older than the last update" : "";
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
  void add(Row row) { mRows.push_back(std::move(row)); }
  void addUnknown(std::string_view name, const std::string& why) {
    add(name, "unknown: " + why, Tone::kFaint);
  }
  void print(std::string_view title) const { printBlock(title, mRows); }

 private:
  std::vector<Row> mRows;
};

void addPacFile(Table& table, const Status& status) {
  if (!status.pac.file) {
    table.add("PAC file",
              status.pac.isThere ? std::string(base::kPacFile) + ": " + status.pac.problem : "none",
              status.pac.isThere ? Tone::kBad : Tone::kFaint);
    return;
  }
  const auto& file = *status.pac.file;
  const auto remark = remarkOn(status);
  table.add("PAC file", base::kPacFile + (remark.empty() ? "" : " (" + remark + ')'));
  table.add("size", std::to_string(file.bytes) + " bytes");
  table.add("fetched", shownWithAge(file.fetched));
  if (file.sha256.empty()) {
    table.addUnknown("SHA-256", "there is no libcrypto");
  } else {
    table.add("SHA-256", file.sha256);
  }
  if (status.refusal->empty()) {
    table.add("script", "loads", Tone::kGood);
  } else {
    table.add("script", "refused: " + *status.refusal, Tone::kBad);
  }
}

void addWho(Table& table, const Owner& owner) {
  std::string who = "yes";
  if (owner.process) who += ", process " + std::to_string(*owner.process);
  if (owner.user) who += ", user " + userName(*owner.user);
  table.add("running", std::move(who), Tone::kGood);
}

/// Whether the daemon has a script in its memory. The daemon does not need the PAC file any more
/// after it has loaded the script.
Known<bool> hasScript(const Status& status) {
  if (status.reported.value) return {status.reported.value->script != 0, {}};
  const std::string unknown =
      " without systemd, it is not known whether this daemon has fetched a script";
  if (!status.pac.file) return {std::nullopt, "there is no script in the PAC file;" + unknown};
  if (isForeign(status)) return {std::nullopt, "the PAC file is not the daemon's;" + unknown};
  const auto process = status.owner ? status.owner->process : std::nullopt;
  if (!process || isNewerThan(*status.pac.file, *process)) return {true, {}};
  return {std::nullopt,
          "the file is of an earlier daemon, or the clock was set after the fetch;" + unknown};
}

/// Describes the answers that programs get while the daemon has no script.
std::string meaningWithoutScript(const Status& status) {
  if (status.walking.value == true) {
    return "no answer for any URL until the walk has fetched a script";
  }
  if (!status.pac.file || isForeign(status)) {
    return "no answer for any URL: no script was fetched";
  }
  if (!status.refusal->empty()) return "no answer from the script in the PAC file: it is refused";
  return "no answer for any URL: this daemon has fetched no script; the file is of an earlier one";
}

/// Adds a row that describes what the mode means for the answers that programs get.
void addMeaning(Table& table, const Status& status) {
  if (status.mode.value != "pacurl" && status.mode.value != "wpad") return;
  const auto script = hasScript(status);
  const bool isInFile = status.pac.file && !isForeign(status) && status.refusal->empty();
  if (!script.value) {
    table.addUnknown("get", script.unknown);
  } else if (!*script.value) {
    table.add("get", meaningWithoutScript(status), Tone::kBad);
  } else if (isInFile) {
    table.add("get", "asks the script; without an answer the script has none for the URL");
  } else if (status.reported.value) {
    table.add("get", "asks the script that the daemon fetched at " +
                         shownTime(status.reported.value->script * 1'000'000, false) +
                         "; this script is not in the PAC file any more");
  } else {
    table.add("get", "no answer from the script in the PAC file: it is refused", Tone::kBad);
  }
}

/// Adds rows for the status that the daemon reported to systemd.
void addReported(Table& table, const Known<base::DaemonStatus>& reported) {
  if (!reported.value) {
    table.addUnknown("updated", reported.unknown);
    table.addUnknown("last walk", reported.unknown);
    return;
  }
  const auto& status = *reported.value;
  if (status.updated == 0) {
    table.add("updated", "never since its start", Tone::kFaint);
  } else {
    table.add("updated", shownWithAge(status.updated * 1'000'000));
  }
  if (status.walked == 0) {
    table.add("last walk", "none since its start", Tone::kFaint);
  } else {
    const bool failed = status.result.starts_with("no ");
    table.add("last walk", shownWithAge(status.walked * 1'000'000) + ": " + status.result,
              failed ? Tone::kBad : Tone::kPlain);
  }
}

void addWalk(Table& table, const std::optional<base::DaemonStatus>& reported) {
  const auto since = reported ? " since " + shownWithAge(reported->walking * 1'000'000) : "";
  table.add("walk", "in progress" + since);
}

void addConfiguration(Table& table, const Status& status) {
  if (!status.waiting.value) {
    table.addUnknown("configured", status.waiting.unknown);
  } else if (*status.waiting.value) {
    table.add("configured", "no, it waits for its first configuration", Tone::kBad);
  } else {
    table.add("configured", "yes", Tone::kGood);
  }
  table.add("mode", status.mode);
  table.add("proxy URL", status.proxyurl);
  table.add("PAC URL", status.pacurl);
  table.add("user", status.userName);
  table.add("password", status.password);
  addReported(table, status.reported);
  if (status.walking.value == true) addWalk(table, status.reported.value);
  addMeaning(table, status);
}

void printTable(const Status& status) {
  Table table;
  if (!status.running.value) {
    table.addUnknown("running", status.running.unknown);
  } else if (!*status.running.value) {
    table.add("running", "no; " + status.running.unknown, Tone::kBad);
  } else {
    addWho(table, *status.owner);
    if (!status.answers.value) {
      table.addUnknown("answers", status.answers.unknown);
    } else if (!*status.answers.value) {
      table.add("answers", "no: " + status.answers.unknown, Tone::kBad);
    } else {
      table.add("answers", "yes", Tone::kGood);
      addConfiguration(table, status);
    }
  }
  addPacFile(table, status);
  table.add(relayRow(status.relay));
  table.add("log", kLog, Tone::kFaint);
  table.print("proxymanagerd");
}

Json jsonOf(const PacFileState& pac, const std::optional<std::string>& refusal) {
  Json object{{"path", base::kPacFile}, {"exists", pac.isThere}};
  const auto& file = pac.file;
  object["bytes"] = file ? Json(file->bytes) : Json();
  object["fetched"] = file ? Json(shownTime(file->fetched, false)) : Json();
  object["age"] = file ? Json(ageOf(file->fetched)) : Json();
  object["sha256"] = file && !file->sha256.empty() ? Json(file->sha256) : Json();
  object["loads"] = refusal ? Json(refusal->empty()) : Json();
  object["refusal"] = refusal && !refusal->empty() ? Json(*refusal) : Json();
  return object;
}

Json jsonOf(const Status& status) {
  Json object;
  Json unknown = Json::object();
  const auto add = [&](const char* name, const auto& fact) {
    object[name] = fact.value ? Json(*fact.value) : Json();
    if (!fact.value && !fact.unknown.empty()) unknown[name] = fact.unknown;
  };
  add("running", status.running);
  const auto& owner = status.owner;
  object["process"] = owner && owner->process ? Json(*owner->process) : Json();
  object["user"] = owner && owner->user ? Json(userName(*owner->user)) : Json();
  add("answers", status.answers);
  if (status.answers.value == false) unknown["answers"] = status.answers.unknown;
  add("waiting", status.waiting);
  add("mode", status.mode);
  add("proxyurl", status.proxyurl);
  add("pacurl", status.pacurl);
  add("userName", status.userName);
  add("password", status.password);
  const auto& reported = status.reported;
  const auto time = [&](std::int64_t seconds) {
    return seconds == 0 ? Json() : Json(shownTime(seconds * 1'000'000, false));
  };
  object["updated"] = reported.value ? time(reported.value->updated) : Json();
  object["walked"] = reported.value ? time(reported.value->walked) : Json();
  object["walk"] =
      reported.value && reported.value->walked != 0 ? Json(reported.value->result) : Json();
  if (!reported.value) unknown["updated"] = unknown["walked"] = reported.unknown;
  add("walking", status.walking);
  object["pacfile"] = jsonOf(status.pac, status.refusal);
  if (status.pac.isThere && !status.pac.file) unknown["pacfile"] = status.pac.problem;
  object["relay"] = relayJson(status.relay);
  if (!status.relay.unit) unknown["relay"] = status.relay.unknown;
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
  auto* const command = program.add_subcommand("status", "Shows the state of the daemon.");
  const auto options = std::make_shared<CallOptions>();
  addCallOptions(*command, *options, kAskLimit);
  addShowPassword(*command, *options);
  command->footer(std::string(kStatusFooter) +
                  statusHelp({{kAnswered, "the daemon runs and answers"}}, kBusStatuses));
  command->callback([options, &action] { action = [options] { return showStatus(*options); }; });
}

}  // namespace client
