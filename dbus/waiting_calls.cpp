#include "dbus/waiting_calls.h"

#include <dbus/dbus-protocol.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "base/log_line.h"

namespace {

constexpr const char* kBus = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
// The match rule for the end of a connection: a name no longer has an owner.
constexpr const char* kLeavingRule =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg2=''";
constexpr std::chrono::minutes kWarningPause{1};

std::string senderOf(const DBus::CallMessage& call) {
  const char* sender = call.sender();
  return sender == nullptr ? std::string() : sender;
}

bool isShort(const DBus::CallMessage& call) {
  if (std::strcmp(call.signature(), "s") != 0) return false;
  return std::strlen(call.reader().get_string()) <= WaitingCalls::kMaxWaitingUrl;
}

int millisecondsUntil(std::chrono::steady_clock::time_point end) {
  const auto left = end - std::chrono::steady_clock::now();
  return std::max(0, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count()));
}

}  // namespace

WaitingCalls::WaitingCalls(DBus::Connection& connection, Serve serve, Serve refuse)
    : mConnection(connection),
      mServe(std::move(serve)),
      mRefuse(std::move(refuse)),
      mOrder(geteuid()) {
  mFilter =
      new DBus::Callback<WaitingCalls, bool, const DBus::Message&>(this, &WaitingCalls::onMessage);
}

WaitingCalls::~WaitingCalls() {
  listen(false);
}

void WaitingCalls::listen(bool on) {
  if (on == mListens) return;
  mListens = on;
  if (on) {
    mConnection.add_filter(mFilter);
  } else {
    mConnection.remove_filter(mFilter);
  }
}

void WaitingCalls::add(const DBus::CallMessage& call, Kind kind, bool isUpdate) {
  if (!mOnly && mOrder.waiting() == 0 && mMarker == 0) {
    mOnly = call;
    mOnlyKind = kind;
    return;
  }
  queueTheOnlyOne();
  letWait(call, kind, senderOf(call), isUpdate);
}

void WaitingCalls::queueTheOnlyOne() {
  if (!mOnly) return;
  mOrder.add(senderOf(*mOnly), mOnlyKind, *mOnly);
  mOnly.reset();
}

void WaitingCalls::letWait(const DBus::CallMessage& call, Kind kind, const std::string& sender,
                           bool isUpdate) {
  const bool fits =
      isUpdate || (mOrder.hasRoom(sender, kind) && (kind == Kind::kPlain || isShort(call)));
  if (fits) {
    mOrder.add(sender, kind, call);
  } else if (kind == Kind::kPlain) {
    mServe(call);
  } else if (isShort(call)) {
    refuseOne(call, sender);
  } else {
    mRefuse(call);  // the call is too long to be kept
  }
}

int WaitingCalls::takeTurn() {
  if (mMarker != 0) {
    if (mOrder.waiting() > 1) askForUsers();
    if (Clock::now() < mReadLimit) return millisecondsUntil(mReadLimit);
    mMarker = 0;
  }
  if (mOnly) {
    const auto call = *std::exchange(mOnly, std::nullopt);
    const int untilNext = serve(call);
    if (mMarker != 0) mOrder.noteServed(senderOf(call), mOnlyKind);
    return untilNext;
  }
  if (mOrder.waiting() == 0 && mRefusedCalls.empty()) {
    beIdle();
    return -1;
  }
  if (mOrder.waiting() > kCrowd) askForUsers();
  if (mRefusedCalls.empty()) return serve(*mOrder.next());
  if (const auto call = mOrder.nextOfModest()) return serve(*call);
  answerRefused();
  return 0;
}

void WaitingCalls::answerRefused() {
  for (auto left = std::min(mRefusedCalls.size(), kRefusedAtOnce); left > 0; --left) {
    mRefuse(mRefusedCalls.front());
    mRefusedCalls.pop_front();
  }
  if (mRefusedCalls.empty()) mOrder.forgetRefused();
}

int WaitingCalls::serve(const DBus::CallMessage& call) {
  const auto begin = Clock::now();
  mServe(call);
  const auto taken = Clock::now() - begin;
  if (taken < kLongTurn) {
    return mOrder.waiting() > 0 || !mRefusedCalls.empty() ? 0 : -1;
  }
  mReadLimit = Clock::now() + kReadLimit;
  mMarker = ask("GetId", "");
  mWaitsForUsers = false;
  mKeepsRefused = taken >= kGatheringTurn;
  return millisecondsUntil(mReadLimit);
}

void WaitingCalls::beIdle() {
  mOrder.forget();
  watch(false);
  mAsked.clear();
  listen(false);
}

void WaitingCalls::serveAll() {
  queueTheOnlyOne();
  while (auto call = mOrder.next()) mServe(*call);
  for (const auto& call : std::exchange(mRefusedCalls, {})) mServe(call);
  mMarker = 0;
}

void WaitingCalls::askForUsers() {
  for (const auto& name : mOrder.takeUnknown()) {
    watch(true);
    mAsked[ask("GetConnectionUnixUser", name)] = name;
  }
}

// Adds or removes the match rule for the end of a connection. One rule covers all connections,
// because the bus limits the number of rules that this process may add.
void WaitingCalls::watch(bool on) {
  if (on == mWatches) return;
  mWatches = on;
  ask(on ? "AddMatch" : "RemoveMatch", kLeavingRule);
}

// The answer arrives like any other message, so no thread is blocked until then.
std::uint32_t WaitingCalls::ask(const char* method, const std::string& argument) {
  DBus::CallMessage call(kBus, kBusPath, kBus, method);
  if (!argument.empty()) call.writer().append_string(argument.c_str());
  unsigned int serial = 0;
  listen(true);
  mConnection.send(call, &serial);
  return serial;
}

// The library's C code calls this function, so it must not throw.
bool WaitingCalls::onMessage(const DBus::Message& message) {
  try {
    const int type = message.type();
    if (type == DBUS_MESSAGE_TYPE_METHOD_CALL) return false;
    const char* sender = message.sender();
    if (sender == nullptr || std::strcmp(sender, kBus) != 0) return false;
    if (type != DBUS_MESSAGE_TYPE_SIGNAL) {
      onReply(message);
    } else if (message.is_signal(kBus, "NameOwnerChanged")) {
      mOrder.drop(message.reader().get_string());
    }
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "ProxyManagerDbusHandler-handle_message failed: %s", error.what());
  }
  return false;
}

void WaitingCalls::onReply(const DBus::Message& reply) {
  const auto serial = static_cast<std::uint32_t>(reply.reply_serial());
  noteUser(serial, reply);
  if (serial != mMarker) return;
  mMarker = 0;
  // The bus answers in order, so it is enough to wait for the answer to the last question about a
  // user. The thread waits only once, because programs that connect all the time would cause more
  // and more such questions.
  if (mAsked.empty() || std::exchange(mWaitsForUsers, true)) return;
  mMarker = mAsked.rbegin()->first;
}

void WaitingCalls::noteUser(std::uint32_t serial, const DBus::Message& reply) {
  const auto asked = mAsked.find(serial);
  if (asked == mAsked.end()) return;
  const auto name = asked->second;
  mAsked.erase(asked);
  if (reply.is_error()) {
    mOrder.drop(name);  // the connection left before it was watched
    return;
  }
  for (const auto& call : mOrder.setUser(name, reply.reader().get_uint32())) refuseOne(call, name);
}

void WaitingCalls::refuseOne(const DBus::CallMessage& call, const std::string& sender) {
  ++mRefused;
  const auto now = Clock::now();
  if (now >= mNextWarning) {
    logLine(
        LOG_WARNING,
        "ProxyManagerDbusHandler-handle_message too many questions wait, answered without the script:%zu, last of:%s",
        mRefused, sender.c_str());
    mRefused = 0;
    mNextWarning = now + kWarningPause;
  }
  if (mMarker == 0 || !mKeepsRefused || mRefusedCalls.size() >= kMaxRefused) {
    mRefuse(call);
    return;
  }
  mRefusedCalls.push_back(call);
  mOrder.noteRefused(sender);
}
