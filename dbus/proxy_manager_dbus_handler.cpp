#include "dbus/proxy_manager_dbus_handler.h"

#include <dbus/dbus-protocol.h>

#include <exception>

#include "base/log_line.h"
#include "dbus/service_callbacks.h"

namespace {

constexpr const char* kPrefix = "ProxyManagerDbusHandler-";
constexpr const char* kFailed = "org.freedesktop.DBus.Error.Failed";

// What a handler without a service answers.
std::vector<std::string> urlsWithoutService() {
  return {"off"};
}

com::zentu::ProxyConfigTexts configWithoutService() {
  com::zentu::ProxyConfigTexts texts;
  texts._1 = "off";
  return texts;
}

constexpr std::int32_t kUpdatedNothing = -1;

void logCalled(const char* function) {
  logLine(LOG_INFO, "%s%s called ", kPrefix, function);
}

// Runs `operation`; where it throws, says so and answers `otherwise()`.
template <typename Operation, typename Otherwise>
auto guarded(const char* function, Operation operation, Otherwise otherwise)
    -> decltype(otherwise()) {
  try {
    return operation();
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "%s%s failed: %s", kPrefix, function, error.what());
    return otherwise();
  }
}

}  // namespace

ProxyManagerDbusHandler::ProxyManagerDbusHandler(ProxyManagerServiceImpl* service,
                                                 DBus::Connection& connection, const char* path)
    : DBus::ObjectAdaptor(connection, path), mService(service) {
  logCalled("ProxyManagerDbusHandler");
}

ProxyManagerDbusHandler::~ProxyManagerDbusHandler() {
  logCalled("~ProxyManagerDbusHandler");
  detachService();
}

void ProxyManagerDbusHandler::detachService() {
  const Lock lock(mServiceMutex);
  mService = nullptr;
}

bool ProxyManagerDbusHandler::checkServicestarted() {
  return true;
}

std::vector<std::string> ProxyManagerDbusHandler::getProxyurl(const std::string& requestUrl) {
  logCalled("getProxyurl");
  return guarded(
      "getProxyurl",
      [&] {
        const Lock lock(mServiceMutex);
        return mService == nullptr ? urlsWithoutService()
                                   : service_callbacks::getProxyUrl(*mService, requestUrl);
      },
      urlsWithoutService);
}

com::zentu::ProxyConfigTexts ProxyManagerDbusHandler::getProxyconfig() {
  logCalled("getProxyconfig");
  return guarded(
      "getProxyconfig",
      [&] {
        const Lock lock(mServiceMutex);
        return mService == nullptr ? configWithoutService()
                                   : service_callbacks::getProxyConfig(*mService);
      },
      configWithoutService);
}

std::int32_t ProxyManagerDbusHandler::updateProxyconfig(
    const std::string& mode, const std::string& proxyurl, const std::string& pacurl,
    const bool& enableauth, const std::string& userName, const std::string& password) {
  logCalled("updateProxyconfig");
  return guarded(
      "updateProxyconfig",
      [&] {
        const Lock lock(mServiceMutex);
        if (mService == nullptr) return kUpdatedNothing;
        const std::int32_t result = service_callbacks::updateProxyConfig(
            *mService, mode, proxyurl, pacurl, enableauth, userName, password);
        notifyProxyConfigupdated(mode, proxyurl, userName, password);
        return result;
      },
      [] { return kUpdatedNothing; });
}

// The interface that a call is for, null where the object has none of that name. The field is
// optional on the bus; without it the method's name alone decides.
DBus::InterfaceAdaptor* ProxyManagerDbusHandler::interfaceOf(const DBus::CallMessage& call) {
  const char* name = call.interface();
  if (name != nullptr) return find_interface(name);
  if (hasMethod(call.member())) return find_interface(kInterface);
  return find_interface("org.freedesktop.DBus.Introspectable");
}

bool ProxyManagerDbusHandler::handle_message(const DBus::Message& message) {
  if (message.type() != DBUS_MESSAGE_TYPE_METHOD_CALL) return false;
  // As the library itself does: a CallMessage is a Message with other member functions.
  const auto& call = reinterpret_cast<const DBus::CallMessage&>(message);
  try {
    auto* interface = interfaceOf(call);
    if (interface == nullptr) return false;  // libdbus answers: unknown method
    conn().send(interface->dispatch_method(call));
  } catch (const DBus::Error& error) {
    // Raised by the library while a stub read its arguments.
    replyError(call, error.name(), error.message());
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "%s%s failed: %s", kPrefix, "handle_message", error.what());
    replyError(call, kFailed, "the call failed");
  } catch (...) {
    logLine(LOG_ERR, "%s%s failed: %s", kPrefix, "handle_message", "unknown exception");
    replyError(call, kFailed, "the call failed");
  }
  return true;
}

// The message copies both texts. Nothing may leave through the library's C code that called us.
void ProxyManagerDbusHandler::replyError(const DBus::CallMessage& call, const char* name,
                                         const char* text) noexcept {
  try {
    conn().send(DBus::ErrorMessage(call, name, text));
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "%s%s failed: %s", kPrefix, "replyError", error.what());
  }
}
