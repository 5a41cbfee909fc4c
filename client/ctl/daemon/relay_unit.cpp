#include "client/ctl/daemon/relay_unit.h"

#include <systemd/sd-bus.h>

#include <memory>
#include <string_view>

#include "client/ctl/daemon/daemon_bus.h"
#include "client/ctl/failure.h"

namespace client {

namespace {

constexpr const char* kSystemdName = "org.freedesktop.systemd1";
/// The object path of the unit. systemd escapes "-" and "." in it.
constexpr const char* kUnitPath = "/org/freedesktop/systemd1/unit/proxymanager_2drelay_2esocket";
constexpr const char* kUnit = "org.freedesktop.systemd1.Unit";
constexpr const char* kSocket = "org.freedesktop.systemd1.Socket";

[[noreturn]] void fail(const std::string& why) {
  throw Failure(kUnavailable, "systemd cannot be asked: " + why);
}

Message property(sd_bus* bus, const char* interface, const char* name, const char* type,
                 std::chrono::microseconds limit) {
  sd_bus_message* call = nullptr;
  int result = sd_bus_message_new_method_call(bus, &call, kSystemdName, kUnitPath,
                                              "org.freedesktop.DBus.Properties", "Get");
  const Message owned(call);
  if (result >= 0) result = sd_bus_message_set_auto_start(call, 0);
  if (result >= 0) result = sd_bus_message_append(call, "ss", interface, name);
  if (result < 0) fail("no memory");
  sd_bus_error error{};
  sd_bus_message* reply = nullptr;
  result = sd_bus_call(bus, call, static_cast<std::uint64_t>(limit.count()), &error, &reply);
  const std::string why = error.message == nullptr ? "" : error.message;
  sd_bus_error_free(&error);
  Message answer(reply);
  if (result < 0) fail(why.empty() ? "it does not answer" : why);
  if (sd_bus_message_enter_container(reply, 'v', type) <= 0) fail("its answer has another form");
  return answer;
}

std::string textProperty(sd_bus* bus, const char* name, std::chrono::microseconds limit) {
  const auto reply = property(bus, kUnit, name, "s", limit);
  const char* text = nullptr;
  if (sd_bus_message_read_basic(reply.get(), 's', &text) <= 0) fail("its answer has another form");
  return text;
}

/// Whether kRelayEndpoint is among the addresses of the socket unit.
bool listensThere(sd_bus* bus, std::chrono::microseconds limit) {
  const auto reply = property(bus, kSocket, "Listen", "a(ss)", limit);
  if (sd_bus_message_enter_container(reply.get(), 'a', "(ss)") < 0) return false;
  const char* kind = nullptr;
  const char* address = nullptr;
  while (sd_bus_message_read(reply.get(), "(ss)", &kind, &address) > 0) {
    if (std::string_view(kind) == "Stream" && std::string_view(address) == kRelayEndpoint) {
      return true;
    }
  }
  return false;
}

}  // namespace

RelayUnit readRelayUnit(sd_bus* bus, std::chrono::microseconds limit) {
  RelayUnit unit;
  unit.isInstalled = textProperty(bus, "LoadState", limit) == "loaded";
  if (!unit.isInstalled) return unit;
  unit.isEnabled = textProperty(bus, "UnitFileState", limit) == "enabled";
  unit.isActive = textProperty(bus, "ActiveState", limit) == "active";
  unit.listens = listensThere(bus, limit);
  return unit;
}

}  // namespace client
