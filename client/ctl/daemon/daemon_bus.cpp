#include "client/ctl/daemon/daemon_bus.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

#include "base/bus_names.h"
#include "client/ctl/daemon/bus_failure.h"
#include "client/library/bus_address.h"

namespace client {

namespace {

using base::kBusName;
using base::kInterface;
using base::kObjectPath;

using Clock = std::chrono::steady_clock;

constexpr const char* kDriver = "org.freedesktop.DBus";
constexpr const char* kSystemd = "org.freedesktop.systemd1";
constexpr const char* kDriverPath = "/org/freedesktop/DBus";

constexpr CallKind kAsk{"ask", false};
constexpr CallKind kReadConfiguration{"read the configuration", false};
constexpr CallKind kConfigure{"change the configuration", true};
constexpr CallKind kListen{"listen to signals", false};

/// An error of sd-bus. The destructor frees the texts of the error.
class BusError {
 public:
  BusError() = default;
  ~BusError() { sd_bus_error_free(&mError); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  sd_bus_error* get() { return &mError; }
  std::string_view name() const { return mError.name == nullptr ? "" : mError.name; }
  std::string_view text() const { return mError.message == nullptr ? "" : mError.message; }

 private:
  sd_bus_error mError{};
};

/// Whether this errno means that the connection has ended.
bool isLost(int error) {
  constexpr std::array kLost{ECONNRESET, ENOTCONN, ECONNABORTED, EPIPE, ESHUTDOWN, ESTALE};
  return std::find(kLost.begin(), kLost.end(), error) != kLost.end();
}

/// Checks the result of a call that fails only if memory is exhausted or the connection is lost.
void check(int result) {
  if (result >= 0) return;
  if (isLost(-result)) throw lostConnection();
  throw std::system_error(-result, std::generic_category(), "the message bus");
}

/// Checks the result of a read from a reply, because the daemon could send a reply of another form.
void checkForm(int result) {
  if (result <= 0) throw wrongReply();
}

std::string textOf(sd_bus_message* reply) {
  const char* text = nullptr;
  checkForm(sd_bus_message_read_basic(reply, 's', &text));
  return text;
}

/// The time limit in the form that the library expects. Returns 0 if `time` is negative.
std::uint64_t microseconds(std::chrono::microseconds time) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(time.count(), 0));
}

std::chrono::microseconds busLimit(std::chrono::microseconds limit) {
  return std::clamp<std::chrono::microseconds>(limit, kLeastBusLimit, kBusLimit);
}

std::uint64_t microsecondsUntil(Clock::time_point end) {
  return microseconds(std::chrono::ceil<std::chrono::microseconds>(end - Clock::now()));
}

}  // namespace

BusHandle openSystemBus(std::chrono::microseconds limit) {
  limit = busLimit(limit);
  const auto address = systemBusAddress();
  sd_bus* bus = nullptr;
  check(sd_bus_new(&bus));
  BusHandle opened(bus);
  int result = sd_bus_set_address(bus, address.c_str());
  if (result >= 0) result = sd_bus_set_bus_client(bus, 1);
  // The time limit of the calls that the library itself makes.
  if (result >= 0) result = sd_bus_set_method_call_timeout(bus, microseconds(limit));
  if (result >= 0) result = sd_bus_start(bus);
  // The bus library's own limit for the handshake is 90 s.
  const auto end = Clock::now() + limit;
  while (result >= 0 && sd_bus_is_ready(bus) == 0) {
    result = sd_bus_process(bus, nullptr);
    if (result != 0) continue;
    const auto left = microsecondsUntil(end);
    if (left == 0) throw failedConnection(address, ETIMEDOUT);
    result = sd_bus_wait(bus, left);
    if (result == -EINTR) result = 0;
  }
  if (result < 0) throw failedConnection(address, -result);
  return opened;
}

DaemonBus::DaemonBus(Limit limit) : mLimit(limit), mBus(openSystemBus(limit)) {}

bool DaemonBus::checkStarted() {
  const auto reply = call(kAsk, newCall("checkServicestarted"));
  int started = 0;
  checkForm(sd_bus_message_read_basic(reply.get(), 'b', &started));
  return started != 0;
}

ProxyAnswer DaemonBus::ask(const std::string& url) {
  const auto message = newCall("getProxyurl");
  check(sd_bus_message_append_basic(message.get(), 's', url.c_str()));
  const auto reply = call(kAsk, message);
  checkForm(sd_bus_message_enter_container(reply.get(), 'a', "s"));
  std::vector<std::string> texts;
  while (sd_bus_message_at_end(reply.get(), 0) == 0) texts.push_back(textOf(reply.get()));
  if (texts.empty() || !isMode(texts.front())) throw wrongReply();
  auto answer = parseAnswer(texts);
  if (!answer) throw endingDaemon();
  return *std::move(answer);
}

Configuration DaemonBus::configuration() {
  const auto reply = call(kReadConfiguration, newCall("getProxyconfig"));
  checkForm(sd_bus_message_enter_container(reply.get(), 'r', "ssssss"));
  Configuration read;
  for (auto* const member : {&read.mode, &read.proxyurl, &read.pacurl, &read.enableauth,
                             &read.userName, &read.password}) {
    *member = textOf(reply.get());
  }
  // A daemon that is about to end returns only the mode; its other texts are empty. In every other
  // reply, `enableauth` is "y" or "n".
  if (read.enableauth.empty()) throw endingDaemon();
  return read;
}

std::int32_t DaemonBus::update(const Configuration& configuration) {
  const auto message = newCall("updateProxyconfig");
  check(sd_bus_message_sensitive(message.get()));
  check(sd_bus_message_append(message.get(), "sssbss", configuration.mode.c_str(),
                              configuration.proxyurl.c_str(), configuration.pacurl.c_str(),
                              static_cast<int>(configuration.enableauth == "y"),
                              configuration.userName.c_str(), configuration.password.c_str()));
  const auto reply = call(kConfigure, message);
  std::int32_t result = 0;
  checkForm(sd_bus_message_read_basic(reply.get(), 'i', &result));
  return result;
}

std::string DaemonBus::settingsState() {
  sd_bus_message* made = nullptr;
  check(sd_bus_message_new_method_call(mBus.get(), &made, base::kSettingsBusName,
                                       base::kSettingsObjectPath, base::kSettingsInterface,
                                       "GetState"));
  const Message message(made);
  check(sd_bus_message_set_auto_start(made, 0));
  BusError error;
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call(mBus.get(), made, microseconds(mLimit), error.get(), &reply);
  if (result >= 0) return textOf(Message(reply).get());
  if (isLost(-result)) throw lostConnection();
  throw failedSettingsCall(error.name(), error.text(), mLimit);
}

std::optional<Owner> DaemonBus::owner() {
  const auto name = askBus("GetNameOwner");
  if (!name) return std::nullopt;
  Owner owner;
  owner.uniqueName = textOf(name.get());
  std::uint32_t number = 0;
  const auto process = askBus("GetConnectionUnixProcessID");
  if (process && sd_bus_message_read_basic(process.get(), 'u', &number) > 0) owner.process = number;
  const auto user = askBus("GetConnectionUnixUser");
  if (user && sd_bus_message_read_basic(user.get(), 'u', &number) > 0) owner.user = number;
  return owner;
}

/// Asks the bus itself about the daemon's name. @return null if the bus sends an error, for example
/// because the name has no owner
Message DaemonBus::askBus(const char* member) {
  sd_bus_message* made = nullptr;
  check(sd_bus_message_new_method_call(mBus.get(), &made, kDriver, kDriverPath, kDriver, member));
  const Message message(made);
  check(sd_bus_message_append_basic(made, 's', kBusName));
  BusError error;
  sd_bus_message* reply = nullptr;
  const int result =
      sd_bus_call(mBus.get(), made, microseconds(busLimit(mLimit)), error.get(), &reply);
  if (result >= 0) return Message(reply);
  if (isLost(-result)) throw lostConnection();
  if (error.name() == kGivenUp) throw failedConnection(systemBusAddress(), ETIMEDOUT);
  return nullptr;
}

std::optional<std::string> DaemonBus::serviceStatus(std::int64_t process) {
  sd_bus_message* message = nullptr;
  check(sd_bus_message_new_method_call(mBus.get(), &message, kSystemd, "/org/freedesktop/systemd1",
                                       "org.freedesktop.systemd1.Manager", "GetUnitByPID"));
  check(sd_bus_message_append(message, "u", static_cast<std::uint32_t>(process)));
  const auto unit = askSystemd(message);
  const char* path = nullptr;
  if (!unit || sd_bus_message_read_basic(unit.get(), 'o', &path) <= 0) return std::nullopt;
  check(sd_bus_message_new_method_call(mBus.get(), &message, kSystemd, path,
                                       "org.freedesktop.DBus.Properties", "Get"));
  check(sd_bus_message_append(message, "ss", "org.freedesktop.systemd1.Service", "StatusText"));
  const auto property = askSystemd(message);
  const char* text = nullptr;
  if (!property || sd_bus_message_read(property.get(), "v", "s", &text) <= 0) return std::nullopt;
  return text;
}

std::optional<base::DaemonStatus> DaemonBus::reportedStatus(const Owner& daemon) {
  const auto line = daemon.process ? serviceStatus(*daemon.process) : std::nullopt;
  return line ? base::parseDaemonStatus(*line) : std::nullopt;
}

/// Sends `message` and releases it. @return null if there is no answer. The bus does not start
/// systemd for this call.
Message DaemonBus::askSystemd(sd_bus_message* message) {
  const Message call(message);
  check(sd_bus_message_set_auto_start(message, 0));
  sd_bus_message* reply = nullptr;
  const int result =
      sd_bus_call(mBus.get(), message, microseconds(busLimit(mLimit)), nullptr, &reply);
  if (isLost(-result)) throw lostConnection();
  return Message(result >= 0 ? reply : nullptr);
}

void DaemonBus::listen(const std::string& rule, Listener listener) {
  auto listening = std::make_unique<Listening>();
  listening->listener = std::move(listener);
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_add_match(mBus.get(), &slot, rule.c_str(), handOn, listening.get());
  if (result == -EACCES || result == -EPERM) {
    throw failedCall(kListen, "org.freedesktop.DBus.Error.AccessDenied", "", mLimit);
  }
  if (result == -ENOBUFS) {
    throw failedCall(kListen, "org.freedesktop.DBus.Error.LimitsExceeded", "no match rule left",
                     mLimit);
  }
  if (result == -ETIMEDOUT) throw failedConnection(systemBusAddress(), ETIMEDOUT);
  check(result);
  listening->slot.reset(slot);
  mListening.push_back(std::move(listening));
}

bool DaemonBus::waitFor(const std::function<bool()>& done, Limit limit) {
  const auto end = Clock::now() + limit;
  for (;;) {
    // One message at a time, so that the limit is also checked during a flood of messages.
    const bool mayBeMore = process();
    if (done()) return true;
    const auto left = microsecondsUntil(end);
    if (left == 0) return false;
    if (mayBeMore) continue;
    const int result = sd_bus_wait(mBus.get(), left);
    if (result != -EINTR) check(result);
  }
}

void DaemonBus::runUntil(int descriptor) {
  for (;;) {
    // One message at a time, so that the descriptor is also checked during a flood of messages.
    const bool mayBeMore = process();
    std::uint64_t until = 0;  // on the monotonic clock
    check(sd_bus_get_timeout(mBus.get(), &until));
    const int events = sd_bus_get_events(mBus.get());
    check(events);
    std::array<pollfd, 2> polled{
        {{sd_bus_get_fd(mBus.get()), static_cast<short>(events), 0}, {descriptor, POLLIN, 0}}};
    const std::chrono::microseconds sinceBoot(until);
    const auto end = Clock::time_point(sinceBoot);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    int limit =
        until == UINT64_MAX ? -1 : static_cast<int>(std::clamp<std::int64_t>(left, 0, INT_MAX));
    if (mayBeMore) limit = 0;
    if (poll(polled.data(), polled.size(), limit) < 0 && errno != EINTR) check(-errno);
    if (polled[1].revents != 0) return;
  }
}

int DaemonBus::handOn(sd_bus_message* message, void* listening, sd_bus_error*) {
  // No exception may pass through the bus library, which is C code.
  auto* const to = static_cast<Listening*>(listening);
  try {
    to->listener(message);
  } catch (...) {
    to->thrown = std::current_exception();
  }
  return 0;
}

bool DaemonBus::process() {
  const int result = sd_bus_process(mBus.get(), nullptr);
  check(result);
  for (const auto& listening : mListening) {
    if (listening->thrown) std::rethrow_exception(std::exchange(listening->thrown, nullptr));
  }
  return result > 0;
}

Message DaemonBus::newCall(const char* member) const {
  sd_bus_message* message = nullptr;
  check(sd_bus_message_new_method_call(mBus.get(), &message, kBusName, kObjectPath, kInterface,
                                       member));
  Message made(message);
  check(sd_bus_message_set_auto_start(message, mMayStart ? 1 : 0));
  return made;
}

Message DaemonBus::call(const CallKind& kind, const Message& message) {
  BusError error;
  sd_bus_message* reply = nullptr;
  const int result =
      sd_bus_call(mBus.get(), message.get(), microseconds(mLimit), error.get(), &reply);
  if (result >= 0) return Message(reply);
  if (isLost(-result)) throw lostConnection();
  throw failedCall(kind, error.name(), error.text(), mLimit);
}

std::string signalRule(const char* member) {
  std::string rule = "type='signal',sender='" + std::string(kBusName) + "',path='" + kObjectPath +
                     "',interface='" + kInterface + '\'';
  if (member != nullptr) rule += ",member='" + std::string(member) + '\'';
  return rule;
}

std::string ownerRule() {
  return std::string("type='signal',sender='") + kDriver + "',path='" + kDriverPath +
         "',interface='" + kDriver + "',member='NameOwnerChanged',arg0='" + kBusName + '\'';
}

}  // namespace client
