#include "settings/pacrunner.h"

#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "base/log_line.h"
#include "base/visible.h"
#include "settings/event_timer.h"
#include "settings/manual_script.h"

namespace settings {

namespace {

constexpr const char* kName = "org.pacrunner";
constexpr const char* kFailed = "org.pacrunner.Error.Failed";

struct CredsCloser {
  void operator()(sd_bus_creds* creds) const { sd_bus_creds_unref(creds); }
};

/// The text of a variant of type "s" at the current position. Other types are skipped.
int readText(sd_bus_message* call, std::optional<std::string>& text, std::size_t most,
             bool& isTooLong) {
  if (sd_bus_message_verify_type(call, 'v', "s") <= 0) return sd_bus_message_skip(call, "v");
  const char* value = nullptr;
  const int read = sd_bus_message_read(call, "v", "s", &value);
  if (read < 0) return read;
  isTooLong = isTooLong || std::strlen(value) > most;
  if (!isTooLong) text = value;
  return read;
}

int readList(sd_bus_message* call, std::vector<std::string>& list, bool& isTooLong) {
  if (sd_bus_message_verify_type(call, 'v', "as") <= 0) return sd_bus_message_skip(call, "v");
  int result = sd_bus_message_enter_container(call, 'v', "as");
  if (result < 0) return result;
  result = sd_bus_message_enter_container(call, 'a', "s");
  if (result < 0) return result;
  const char* value = nullptr;
  while ((result = sd_bus_message_read(call, "s", &value)) > 0) {
    isTooLong = isTooLong || std::strlen(value) > kMaxTextBytes;
    if (list.size() < kMaxListEntries && !isTooLong) list.emplace_back(value);
  }
  if (result < 0) return result;
  result = sd_bus_message_exit_container(call);
  return result < 0 ? result : sd_bus_message_exit_container(call);
}

/// The known entries of the dictionary that a caller of CreateProxyConfiguration has sent.
/// readPushed() checks them.
struct Dictionary {
  std::optional<std::string> method, url, script, interface;
  std::vector<std::string> servers, excludes;
  bool isTooLong = false;
};

int readEntry(sd_bus_message* call, Dictionary& entries) {
  const char* name = nullptr;
  const int result = sd_bus_message_read(call, "s", &name);
  if (result < 0) return result;
  const std::string_view key = name;
  if (key == "Method") return readText(call, entries.method, kMaxTextBytes, entries.isTooLong);
  if (key == "URL") return readText(call, entries.url, kMaxTextBytes, entries.isTooLong);
  if (key == "Script") return readText(call, entries.script, kMaxScriptBytes, entries.isTooLong);
  if (key == "Interface")
    return readText(call, entries.interface, kMaxTextBytes, entries.isTooLong);
  if (key == "Servers") return readList(call, entries.servers, entries.isTooLong);
  if (key == "Excludes") return readList(call, entries.excludes, entries.isTooLong);
  return sd_bus_message_skip(call, "v");
}

int readDictionary(sd_bus_message* call, Dictionary& entries) {
  int result = sd_bus_message_enter_container(call, 'a', "{sv}");
  if (result < 0) return result;
  while ((result = sd_bus_message_enter_container(call, 'e', "sv")) > 0) {
    if ((result = readEntry(call, entries)) < 0) return result;
    if ((result = sd_bus_message_exit_container(call)) < 0) return result;
  }
  return result < 0 ? result : sd_bus_message_exit_container(call);
}

const sd_bus_vtable* managerTable(sd_bus_message_handler_t create,
                                  sd_bus_message_handler_t destroy) {
  static const sd_bus_vtable table[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_ARGS("CreateProxyConfiguration", SD_BUS_ARGS("a{sv}", settings),
                              SD_BUS_RESULT("o", path), create, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_METHOD_WITH_ARGS("DestroyProxyConfiguration", SD_BUS_ARGS("o", path), SD_BUS_NO_RESULT,
                              destroy, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};
  return table;
}

const sd_bus_vtable* clientTable(sd_bus_message_handler_t find) {
  static const sd_bus_vtable table[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD_WITH_ARGS("FindProxyForURL", SD_BUS_ARGS("s", url, "s", host),
                              SD_BUS_RESULT("s", proxy), find, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END};
  return table;
}

}  // namespace

int readPushed(sd_bus_message* call, PushedConfiguration& pushed, std::string& problem) {
  Dictionary entries;
  if (const int result = readDictionary(call, entries); result < 0) return result;
  if (entries.isTooLong) {
    problem = "a text is too long";
  } else if (entries.method == "direct") {
    pushed.method = PushedConfiguration::Method::kDirect;
  } else if (entries.method == "auto") {
    pushed.method = PushedConfiguration::Method::kAuto;
  } else if (entries.method == "manual") {
    pushed.method = PushedConfiguration::Method::kManual;
  } else {
    problem = "Method must be \"direct\", \"auto\" or \"manual\"";
  }
  if (!problem.empty()) return 1;
  pushed.interface = entries.interface.value_or("");
  pushed.url = entries.url.value_or("");
  pushed.script = std::move(entries.script);
  pushed.servers = std::move(entries.servers);
  pushed.excludes = std::move(entries.excludes);
  return 0;
}

PacRunner::PacRunner(sd_bus* bus, DaemonLink& daemon, std::function<void()> changed)
    : mBus(bus), mDaemon(daemon), mChanged(std::move(changed)) {}

PacRunner::~PacRunner() = default;

void PacRunner::start() {
  sd_bus_slot* slot = nullptr;
  require(sd_bus_add_object_vtable(mBus, &slot, "/org/pacrunner/manager", "org.pacrunner.Manager",
                                   managerTable(onCreate, onDestroy), this),
          "sd_bus_add_object_vtable");
  mManager.reset(slot);
  require(sd_bus_add_object_vtable(mBus, &slot, "/org/pacrunner/client", "org.pacrunner.Client",
                                   clientTable(onFind), this),
          "sd_bus_add_object_vtable");
  mClient.reset(slot);
  const int result = sd_bus_request_name(mBus, kName, 0);
  if (result < 0) {
    logLine(LOG_WARNING, "settings: no name %s, network managers cannot reach this service: %s",
            kName, std::strerror(-result));
  }
}

PacRunner::Sender& PacRunner::senderOf(const std::string& name) {
  if (const auto found = mSenders.find(name); found != mSenders.end()) return found->second;
  Sender sender;
  sd_bus_track* track = nullptr;
  require(sd_bus_track_new(mBus, &track, onSenderGone, this), "sd_bus_track_new");
  sender.track.reset(track);
  // This fails if the sender has already left the bus.
  require(sd_bus_track_add_name(track, name.c_str()), "sd_bus_track_add_name");
  return mSenders.emplace(name, std::move(sender)).first->second;
}

int PacRunner::onSenderGone(sd_bus_track* track, void* self) {
  auto& runner = *static_cast<PacRunner*>(self);
  for (auto sender = runner.mSenders.begin(); sender != runner.mSenders.end(); ++sender) {
    if (sender->second.track.get() != track) continue;
    const bool changed = runner.mSet.removeSender(sender->first) != 0;
    runner.mSenders.erase(sender);
    if (changed) runner.notifyChange();
    break;
  }
  return 0;
}

// Called after the reply, because an error here is not the caller's fault.
void PacRunner::notifyChange() {
  guarded(sd_bus_get_event(mBus), mChanged);
}

int PacRunner::onCreate(sd_bus_message* call, void* self, sd_bus_error* error) {
  try {
    return static_cast<PacRunner*>(self)->create(call, error);
  } catch (const std::exception& failure) {
    return sd_bus_error_set(error, kFailed, failure.what());
  }
}

int PacRunner::create(sd_bus_message* call, sd_bus_error* error) {
  PushedConfiguration pushed;
  std::string problem;
  const int result = readPushed(call, pushed, problem);
  if (result < 0) return result;
  if (result > 0) return sd_bus_error_set(error, kFailed, problem.c_str());
  const char* name = sd_bus_message_get_sender(call);
  Sender& sender = senderOf(name);
  NetworkConfiguration translated = translate(pushed);
  const bool isUsable = translated.isUsable;
  const auto number = mSet.add(std::move(translated), name);
  if (!number) {
    if (!sender.isOverLimit) {
      logLine(LOG_WARNING, "settings: %s has pushed %zu configurations, more are refused", name,
              mSet.countOf(name));
    }
    sender.isOverLimit = true;
    return sd_bus_error_set(error, kFailed, "too many configurations");
  }
  if (!isUsable) {
    logLine(LOG_WARNING, "settings: a configuration of %s for interface %s cannot be used", name,
            base::visible(pushed.interface).c_str());
  }
  const int replied = sd_bus_reply_method_return(call, "o", pathOfNumber(*number).c_str());
  notifyChange();
  return replied;
}

int PacRunner::onDestroy(sd_bus_message* call, void* self, sd_bus_error* error) {
  auto& runner = *static_cast<PacRunner*>(self);
  const char* path = nullptr;
  const int result = sd_bus_message_read(call, "o", &path);
  if (result < 0) return result;
  const auto number = numberOfPath(path);
  if (!number || !runner.mSet.remove(*number, sd_bus_message_get_sender(call))) {
    return sd_bus_error_set(error, kFailed, "no configuration of this sender");
  }
  const int replied = sd_bus_reply_method_return(call, nullptr);
  runner.notifyChange();
  return replied;
}

int PacRunner::onFind(sd_bus_message* call, void* self, sd_bus_error* error) {
  try {
    return static_cast<PacRunner*>(self)->find(call, error);
  } catch (const std::exception& failure) {
    return sd_bus_error_set(error, kFailed, failure.what());
  }
}

int PacRunner::find(sd_bus_message* call, sd_bus_error* error) {
  const char *url = nullptr, *host = nullptr;
  const int result = sd_bus_message_read(call, "ss", &url, &host);
  if (result < 0) return result;
  if (std::strlen(url) + std::strlen(host) > kMaxQuestionBytes) {
    return sd_bus_error_set(error, kFailed, "the URL is too long");
  }
  if (!mDaemon.isThere()) return sd_bus_reply_method_return(call, "s", "DIRECT");
  const std::string caller = sd_bus_message_get_sender(call);
  const uid_t user = userOf(call);
  // The answer is not "DIRECT", which would be wrong if every request must go through a proxy.
  if (!mQuestions.hasRoom(caller, user)) {
    return sd_bus_error_set(error, kFailed, "too many questions wait");
  }
  // The pointer is shared, because std::function copies what the callback captures.
  const auto kept = std::make_shared<BusMessage>(sd_bus_message_ref(call));
  mQuestions.add(
      {caller, user, [this, kept, caller] { ask(kept, caller); },
       [kept] { sd_bus_reply_method_errorf(kept->get(), kFailed, "too many questions wait"); },
       QuestionQueue::Clock::now()});
  mQuestions.proceed(QuestionQueue::Clock::now());
  return 1;
}

/// The user of the connection that sent `call`. Only the bus can report the user, and it answers
/// immediately.
uid_t PacRunner::userOf(sd_bus_message* call) const {
  if (const auto known = mQuestions.userOf(sd_bus_message_get_sender(call))) return *known;
  sd_bus_creds* creds = nullptr;
  require(sd_bus_query_sender_creds(call, SD_BUS_CREDS_EUID, &creds), "the caller's user");
  const std::unique_ptr<sd_bus_creds, CredsCloser> owned(creds);
  uid_t user = 0;
  require(sd_bus_creds_get_euid(creds, &user), "the caller's user");
  return user;
}

void PacRunner::ask(const std::shared_ptr<BusMessage>& call, const std::string& caller) {
  const char* url = nullptr;
  require(sd_bus_message_rewind(call->get(), 1), "sd_bus_message_rewind");
  require(sd_bus_message_read(call->get(), "s", &url), "sd_bus_message_read");
  mDaemon.ask(url, [this, call, caller](const auto& answer) {
    sd_bus_reply_method_return(call->get(), "s", proxyText(answer).c_str());
    mQuestions.ended(caller);
    mQuestions.proceed(QuestionQueue::Clock::now());
  });
}

// The first text of the daemon's answer is the mode. In mode manual, the second text is a URL. But
// callers understand only entries in the form that a script returns.
std::string PacRunner::proxyText(const std::optional<std::vector<std::string>>& answer) const {
  if (!answer || answer->size() < 2) return "DIRECT";
  std::string joined;
  for (std::size_t i = 1; i < answer->size(); i++) {
    const std::string entry =
        (*answer)[0] == modeText(Mode::kManual) ? entryOfManualUrl((*answer)[i]) : (*answer)[i];
    if (entry.empty()) continue;
    if (!joined.empty()) joined += "; ";
    joined += entry;
    if (!mAnswersAll) break;
  }
  return joined.empty() ? "DIRECT" : joined;
}

}  // namespace settings
