#include "client/library/bus_link.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "base/bus_names.h"
#include "client/library/proxy_answer.h"

namespace client::library {

namespace {

using base::kBusName;
using base::kInterface;
using base::kObjectPath;

constexpr const char* kDriver = "org.freedesktop.DBus";
constexpr const char* kDriverPath = "/org/freedesktop/DBus";

// The rule selects only the signal that answers have changed: the daemon's other signals would wake
// every client for nothing.
constexpr const char* kClearRule =
    "type='signal',sender='com.zentu.ProxyManagerService',path='/com/zentu/ProxyManagerService',"
    "interface='com.zentu.ProxyManagerServiceInterface',member='notifyClearcache'";
constexpr const char* kOwnerRule =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='com.zentu.ProxyManagerService'";
constexpr int kRules = 2;

/// A call has no time limit of its own: the questions have limits, and the owner of the link
/// notices a silent bus. If a callback keeps the thread busy, a timer here could end before the
/// thread reads an answer that arrived in time. For the greeting, sd-bus has a limit of 90 s and
/// the bus has its own limit. These two limits cannot be turned off.
constexpr std::uint64_t kNoLimit = UINT64_MAX;

using Message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

Outcome badReply() {
  return failedAnswer("org.freedesktop.DBus.Error.InconsistentMessage",
                      "its reply has another form");
}

/// The outcome of a reply to getProxyurl: an answer, or the reason why there is none.
struct Reply {
  std::optional<ProxyAnswer> answer;
  Outcome outcome;
};

/// @throws std::bad_alloc
Reply read(sd_bus_message* reply) {
  if (sd_bus_message_has_signature(reply, "as") <= 0) return {{}, badReply()};
  if (sd_bus_message_enter_container(reply, 'a', "s") < 0) return {{}, badReply()};
  std::vector<std::string> texts;
  const char* text = nullptr;
  int result = 0;
  while ((result = sd_bus_message_read_basic(reply, 's', &text)) > 0) texts.emplace_back(text);
  // If this library refuses one text of a reply, the whole reply is invalid, because a part of an
  // answer would be a different answer.
  if (result == -ENOMEM) throw std::bad_alloc();
  if (result < 0 || texts.empty() || !isMode(texts.front())) return {{}, badReply()};
  auto parsed = parseAnswer(texts);
  if (!parsed) return {{}, {PROXYMANAGER_NO_DAEMON, {}, {}}};  // the daemon is about to end
  return {std::move(parsed), {}};
}

Reply replyOf(sd_bus_message* reply) {
  if (const auto* const error = sd_bus_message_get_error(reply); error != nullptr) {
    // If the connection to the bus is lost, sd-bus itself makes this reply.
    if (sd_bus_is_open(sd_bus_message_get_bus(reply)) <= 0) {
      return {{}, failedAnswer(kDisconnected, "")};
    }
    return {{}, failedAnswer(error->name, error->message == nullptr ? "" : error->message)};
  }
  return read(reply);
}

/// Reads a reply to getProxyconfig. Returns nothing if this program may not read the configuration.
/// @throws std::bad_alloc
std::optional<Configuration> configurationOf(sd_bus_message* reply) {
  if (sd_bus_message_is_method_error(reply, nullptr) != 0 ||
      sd_bus_message_enter_container(reply, 'r', "ssssss") <= 0) {
    return std::nullopt;
  }
  Configuration read;
  for (auto* const member : {&read.mode, &read.proxyurl, &read.pacurl, &read.enableauth,
                             &read.userName, &read.password}) {
    const char* text = nullptr;
    if (sd_bus_message_read_basic(reply, 's', &text) <= 0) return std::nullopt;
    *member = text;
  }
  return read;
}

}  // namespace

int BusLink::open(const char* address) {
  sd_bus* bus = nullptr;
  int result = sd_bus_new(&bus);
  if (result < 0) return -result;
  mBus.reset(bus);
  result = sd_bus_set_address(bus, address);
  if (result >= 0) result = sd_bus_set_bus_client(bus, 1);
  if (result >= 0) result = sd_bus_set_method_call_timeout(bus, kNoLimit);
  if (result >= 0) result = sd_bus_start(bus);
  return result < 0 ? -result : 0;
}

int BusLink::process() {
  int result = sd_bus_process(mBus.get(), nullptr);
  if (result < 0 || mIsReady || sd_bus_is_ready(mBus.get()) <= 0) return result;
  mIsReady = true;
  const int followed = follow();
  return followed < 0 ? followed : 1;
}

/// First subscribes to the signals, then asks the bus for the owner of the daemon's name. So the
/// link notices every later change of the owner. A question that is sent later reaches the daemon
/// after the bus has handled these requests.
int BusLink::follow() {
  int result =
      sd_bus_add_match_async(mBus.get(), nullptr, kOwnerRule, onOwnerSignal, onMatch, this);
  if (result >= 0) {
    result = sd_bus_add_match_async(mBus.get(), nullptr, kClearRule, onClear, onMatch, this);
  }
  if (result >= 0) {
    result = sd_bus_call_method_async(mBus.get(), nullptr, kDriver, kDriverPath, kDriver,
                                      "GetNameOwner", onOwnerReply, this, "s", kBusName);
  }
  return result;
}

int BusLink::send(const std::string& url, Asked& asked) {
  asked.mUrl = &url;
  asked.mAttempts = 0;
  return ask(asked);
}

/// Sends a question whose URL is set. The link can call this function again for the same question.
/// @return 0, or an errno
int BusLink::ask(Asked& asked) {
  ++asked.mAttempts;
  return call("getProxyurl", asked.mUrl->c_str(), onReply, asked);
}

/// Calls the method `member` of the daemon. @param url the argument; null if the method takes none.
/// @return 0, or an errno
int BusLink::call(const char* member, const char* url, sd_bus_message_handler_t handler,
                  Asked& asked) {
  sd_bus_message* made = nullptr;
  int result =
      sd_bus_message_new_method_call(mBus.get(), &made, kBusName, kObjectPath, kInterface, member);
  if (result < 0) return -result;
  const Message message(made, sd_bus_message_unref);
  if (url != nullptr) result = sd_bus_message_append_basic(made, 's', url);
  const bool mayStart = (mFlags & PROXYMANAGER_NO_START) == 0;
  if (result >= 0) result = sd_bus_message_set_auto_start(made, mayStart ? 1 : 0);
  sd_bus_slot* slot = nullptr;
  if (result >= 0) result = sd_bus_call_async(mBus.get(), &slot, made, handler, &asked, kNoLimit);
  if (result < 0) return -result;
  asked.mLink = this;
  asked.mSlot.reset(slot);
  return 0;
}

pollfd BusLink::polled() const {
  const int events = sd_bus_get_events(mBus.get());
  return {sd_bus_get_fd(mBus.get()), static_cast<short>(std::max(events, 0)), 0};
}

std::optional<Clock::time_point> BusLink::wakeAt() const {
  std::uint64_t until = 0;  // a time on the monotonic clock, which Clock also uses
  if (sd_bus_get_timeout(mBus.get(), &until) <= 0 || until == UINT64_MAX) return std::nullopt;
  return Clock::time_point(std::chrono::microseconds(until));
}

int BusLink::onReply(sd_bus_message* message, void* asked, sd_bus_error*) {
  auto& of = *static_cast<Asked*>(asked);
  auto& link = *of.mLink;
  of.mIsFromOwner = link.mMatches == kRules && link.isFromOwner(message);
  Outcome outcome;
  try {
    auto reply = replyOf(message);
    of.mAnswer = std::move(reply.answer);
    if (of.mAnswer && link.askConfiguration(of)) return 1;
    outcome = of.mAnswer ? link.outcomeOf(*std::move(of.mAnswer)) : std::move(reply.outcome);
  } catch (const std::bad_alloc&) {
    outcome = {PROXYMANAGER_NO_MEMORY, {}, {}};
  }
  link.mListener.replied(of, outcome, of.mIsFromOwner);
  return 1;
}

/// Asks for the configuration if the answer needs credentials from it. @return whether the link now
/// waits for the configuration
bool BusLink::askConfiguration(Asked& asked) {
  if ((mFlags & PROXYMANAGER_WITH_CREDENTIALS) == 0) return false;
  const auto& entries = asked.mAnswer->entries;
  const bool isWanted = std::any_of(entries.begin(), entries.end(), [&](const ProxyEntry& entry) {
    return takesCredentials(*asked.mAnswer, entry, {});
  });
  return isWanted && call("getProxyconfig", nullptr, onConfiguration, asked) == 0;
}

int BusLink::onConfiguration(sd_bus_message* message, void* asked, sd_bus_error*) {
  auto& of = *static_cast<Asked*>(asked);
  auto& link = *of.mLink;
  of.mIsFromOwner = of.mIsFromOwner && link.isFromOwner(message);
  Outcome outcome;
  try {
    auto answer = *std::move(of.mAnswer);
    const auto configuration = configurationOf(message);
    if (configuration && !addCredentials(answer, *configuration, {})) {
      if (of.mAttempts < kMaxAttempts && link.ask(of) == 0) return 1;
      of.mIsFromOwner = false;  // the answer is outdated, so it is not remembered
    }
    outcome = link.outcomeOf(std::move(answer));
  } catch (const std::bad_alloc&) {
    outcome = {PROXYMANAGER_NO_MEMORY, {}, {}};
  }
  link.mListener.replied(of, outcome, of.mIsFromOwner);
  return 1;
}

/// @throws std::bad_alloc
Outcome BusLink::outcomeOf(ProxyAnswer answer) const {
  if ((mFlags & PROXYMANAGER_REFUSE) != 0 && firstUsable(answer.entries) == nullptr) {
    return {PROXYMANAGER_NO_ANSWER, {}, {}};
  }
  return {PROXYMANAGER_OK, AnswerRef(new proxymanager_answer(std::move(answer))), {}};
}

/// Counts the match rules that the bus accepts. If the bus refuses a rule, the link can still send
/// questions, but the client does not remember the answers.
int BusLink::onMatch(sd_bus_message* message, void* link, sd_bus_error*) {
  auto& self = *static_cast<BusLink*>(link);
  self.mAnswered++;
  if (sd_bus_message_is_method_error(message, nullptr) == 0) self.mMatches++;
  return 1;
}

int BusLink::onOwnerReply(sd_bus_message* message, void* link, sd_bus_error*) {
  auto& self = *static_cast<BusLink*>(link);
  self.mAnswered++;
  // If the connection to the bus is lost, sd-bus itself makes this reply. Such a reply has no
  // information about the daemon.
  if (sd_bus_is_open(sd_bus_message_get_bus(message)) <= 0) return 1;
  const char* owner = "";
  if (sd_bus_message_is_method_error(message, nullptr) != 0 ||
      sd_bus_message_read_basic(message, 's', &owner) <= 0) {
    owner = "";
  }
  self.setOwner(owner);
  return 1;
}

int BusLink::onOwnerSignal(sd_bus_message* message, void* link, sd_bus_error*) {
  const char* const sender = sd_bus_message_get_sender(message);
  const char* name = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  if (sender == nullptr || std::string_view(sender) != kDriver) return 0;
  if (sd_bus_message_read(message, "sss", &name, &before, &after) <= 0) return 0;
  if (std::string_view(name) == kBusName) static_cast<BusLink*>(link)->setOwner(after);
  return 0;
}

int BusLink::onClear(sd_bus_message* message, void* link, sd_bus_error*) {
  auto& self = *static_cast<BusLink*>(link);
  if (self.isFromOwner(message)) self.mListener.answersChanged();
  return 0;
}

void BusLink::setOwner(const char* owner) {
  if (mOwner == owner) return;
  try {
    mOwner = owner;
  } catch (const std::bad_alloc&) {  // rare: a unique name is short and usually needs no allocation
    mOwner = "";
  }
  mListener.ownerChanged(!mOwner->empty());
}

bool BusLink::isFromOwner(sd_bus_message* message) const {
  const char* const sender = sd_bus_message_get_sender(message);
  return sender != nullptr && mOwner && !mOwner->empty() && *mOwner == sender;
}

}  // namespace client::library
