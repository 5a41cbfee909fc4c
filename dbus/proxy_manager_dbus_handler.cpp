#include "dbus/proxy_manager_dbus_handler.h"

#include <dbus/dbus-protocol.h>

#include <cstring>
#include <exception>
#include <utility>

#include "base/log_line.h"
#include "dbus/service_callbacks.h"

ProxyManagerDbusHandler::ProxyManagerDbusHandler(ProxyManagerServiceImpl* service,
                                                 DBus::Connection& connection, const char* path)
    : DBus::ObjectAdaptor(connection, path), mService(service) {
  logLine(LOG_INFO, "ProxyManagerDbusHandler-ProxyManagerDbusHandler called ");
}

ProxyManagerDbusHandler::~ProxyManagerDbusHandler() {
  logLine(LOG_INFO, "ProxyManagerDbusHandler-~ProxyManagerDbusHandler called ");
  detachService();
}

void ProxyManagerDbusHandler::attachService(ProxyManagerServiceImpl& service) {
  const Lock lock(mServiceMutex);
  mService = &service;
  mRefusesCalls = false;
}

void ProxyManagerDbusHandler::refuseCalls() {
  mRefusesCalls = true;
}

void ProxyManagerDbusHandler::detachService() {
  refuseCalls();  // before the lock: the mutex is not fair, so the bus thread may take it again and
                  // again
  const Lock lock(mServiceMutex);
  mService = nullptr;
}

ProxyManagerServiceImpl* ProxyManagerDbusHandler::service() const {
  return mRefusesCalls || mAnswersAlone ? nullptr : mService;
}

bool ProxyManagerDbusHandler::checkServicestarted() {
  return true;
}

std::vector<std::string> ProxyManagerDbusHandler::getProxyurl(const std::string& requestUrl) {
  logLine(LOG_INFO, "ProxyManagerDbusHandler-getProxyurl called ");
  const Lock lock(mServiceMutex);
  if (service() == nullptr) return {"off"};
  if (mAnswersWithoutScript) return service_callbacks::getProxyUrlWithoutScript(*service());
  return service_callbacks::getProxyUrl(*service(), requestUrl);
}

com::zentu::ProxyConfigTexts ProxyManagerDbusHandler::getProxyconfig() {
  logLine(LOG_INFO, "ProxyManagerDbusHandler-getProxyconfig called ");
  const Lock lock(mServiceMutex);
  if (service() != nullptr) return service_callbacks::getProxyConfig(*service());
  com::zentu::ProxyConfigTexts texts;
  texts._1 = "off";
  return texts;
}

std::int32_t ProxyManagerDbusHandler::updateProxyconfig(
    const std::string& mode, const std::string& proxyurl, const std::string& pacurl,
    const bool& enableauth, const std::string& userName, const std::string& password) {
  logLine(LOG_INFO, "ProxyManagerDbusHandler-updateProxyconfig called ");
  const Lock lock(mServiceMutex);
  if (service() == nullptr) return -1;
  const std::int32_t result = service_callbacks::updateProxyConfig(
      *service(), mode, proxyurl, pacurl, enableauth, userName, password);
  notifyProxyConfigupdated(mode, proxyurl, userName, password);
  return result;
}

// The interface of a call; null if the object has no such interface. On the bus, a call need not
// name an interface. For such a call, only the method's name is checked.
DBus::InterfaceAdaptor* ProxyManagerDbusHandler::interfaceOf(const DBus::CallMessage& call) {
  const char* name = call.interface();
  if (name != nullptr) return find_interface(name);
  if (hasMethod(call.member())) return find_interface(kInterface);
  return find_interface("org.freedesktop.DBus.Introspectable");
}

void ProxyManagerDbusHandler::queueCalls() {
  const auto serveOne = [this](const DBus::CallMessage& call) { serve(call); };
  const auto refuseOne = [this](const DBus::CallMessage& call) {
    mAnswersWithoutScript = true;
    serve(call);
    mAnswersWithoutScript = false;
  };
  mWaitingCalls = std::make_unique<WaitingCalls>(conn(), serveOne, refuseOne);
}

int ProxyManagerDbusHandler::takeTurn() {
  if (!mRefusesCalls) return mWaitingCalls->takeTurn();
  mWaitingCalls->serveAll();  // each call gets the answer of a handler without a service
  return -1;
}

// The C code of the bus library calls this function, and no exception may pass through it.
bool ProxyManagerDbusHandler::handle_message(const DBus::Message& message) {
  if (message.type() != DBUS_MESSAGE_TYPE_METHOD_CALL) return false;
  // The library does the same cast: a CallMessage is a Message with other member functions.
  const auto& call = reinterpret_cast<const DBus::CallMessage&>(message);
  return letWait(call) || serve(call);
}

// @return false if the call does not wait and is to be answered at once
bool ProxyManagerDbusHandler::letWait(const DBus::CallMessage& call) {
  if (!mWaitingCalls || mRefusesCalls) return false;
  const char* interface = call.interface();
  if (interface != nullptr && std::strcmp(interface, kInterface) != 0) return false;
  if (!hasMethod(call.member())) return false;
  const bool isQuestion = std::strcmp(call.member(), "getProxyurl") == 0;
  const bool isUpdate = std::strcmp(call.member(), "updateProxyconfig") == 0;
  try {
    mWaitingCalls->add(call, isQuestion ? CallOrder::Kind::kQuestion : CallOrder::Kind::kPlain,
                       isUpdate);
    return true;
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "ProxyManagerDbusHandler-handle_message failed: %s", error.what());
  }
  return answerWithoutService(call);
}

// @return whether the call is answered; if not, libdbus answers: unknown method
bool ProxyManagerDbusHandler::serve(const DBus::CallMessage& call) noexcept {
  try {
    return answer(call);
  } catch (const std::exception& error) {
    logLine(LOG_ERR, "ProxyManagerDbusHandler-handle_message failed: %s", error.what());
  } catch (...) {
    logLine(LOG_ERR, "ProxyManagerDbusHandler-handle_message failed: unknown exception");
  }
  return answerWithoutService(call);
}

bool ProxyManagerDbusHandler::answer(const DBus::CallMessage& call) {
  auto* interface = interfaceOf(call);
  if (interface == nullptr) return false;
  try {
    conn().send(interface->dispatch_method(call));
  } catch (const DBus::ErrorInvalidArgs& error) {
    // The library throws this error when a stub reads its arguments. The message copies both texts.
    conn().send(DBus::ErrorMessage(call, error.name(), error.message()));
  }
  return true;
}

bool ProxyManagerDbusHandler::answerWithoutService(const DBus::CallMessage& call) noexcept {
  mAnswersAlone = true;
  bool isAnswered = false;
  try {
    isAnswered = answer(call);
  } catch (...) {
    // Even the answer of a handler without a service cannot be built. Either libdbus answers the
    // call, or the caller's timeout ends it.
  }
  mAnswersAlone = false;
  return isAnswered;
}
