// The object that the bus sees at /com/zentu/ProxyManagerService.
//
// It forwards the four calls to the service, and announces every update. If it has no service, it
// answers the calls itself. It also ensures that no message of a client ends the process. A call
// that names no interface counts as a call of the only interface. If the handling of a call throws
// an exception, the client gets the answer of a handler without a service, and one LOG_ERR line is
// logged. The object sends no D-Bus error of its own, only the library's error for wrong arguments.
// Operations run on the bus thread.
#pragma once

#include <dbus-c++/dbus.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/mutex.h"
#include "dbus/proxy_manager_service_interface.h"
#include "dbus/waiting_calls.h"

class ProxyManagerServiceImpl;

class ProxyManagerDbusHandler : public com::zentu::ProxyManagerServiceInterface_adaptor,
                                public DBus::ObjectAdaptor,
                                public DBus::IntrospectableAdaptor {
 public:
  /// Registers the object at `path` of `connection`.
  /// @param service not owned, may be null; must outlive the handler, or be detached before the
  /// service is deleted
  ProxyManagerDbusHandler(ProxyManagerServiceImpl* service, DBus::Connection& connection,
                          const char* path);
  ~ProxyManagerDbusHandler() override;
  ProxyManagerDbusHandler(const ProxyManagerDbusHandler&) = delete;
  ProxyManagerDbusHandler& operator=(const ProxyManagerDbusHandler&) = delete;

  /// Passes calls to `service` again. `service` must outlive the handler, or be detached before the
  /// service is deleted. Waits for the call in progress. Any thread, except the bus thread inside a
  /// call.
  void attachService(ProxyManagerServiceImpl& service) PM_EXCLUDES(mServiceMutex);

  /// After this call, every new call is answered as by a handler without a service. The function
  /// does not wait for the call in progress. Any thread.
  void refuseCalls();

  /// Refuses new calls, waits for the call in progress, then forgets the service. Any thread,
  /// except the bus thread inside a call.
  void detachService() PM_EXCLUDES(mServiceMutex);

  /// After this call, calls of the interface wait for takeTurn(); they are not answered when they
  /// arrive. The connection must outlive the handler. Call this function before the connection is
  /// dispatched.
  void queueCalls();
  /// Serves one waiting call. Bus thread.
  /// @return the milliseconds after which the caller must call again if nothing arrives from the
  /// bus; -1 means never
  int takeTurn();

  /// Always true.
  bool checkServicestarted() override;
  /// The service's answer. If there is no service, the answer is only "off".
  std::vector<std::string> getProxyurl(const std::string& requestUrl) override
      PM_EXCLUDES(mServiceMutex);
  /// The service's configuration. If there is no service, the result is "off" and five empty texts.
  com::zentu::ProxyConfigTexts getProxyconfig() override PM_EXCLUDES(mServiceMutex);
  /// Passes the values to the service, emits notifyProxyConfigupdated with the same values, and
  /// returns the service's result. Without a service, returns -1 and emits no signal.
  std::int32_t updateProxyconfig(const std::string& mode, const std::string& proxyurl,
                                 const std::string& pacurl, const bool& enableauth,
                                 const std::string& userName, const std::string& password) override
      PM_EXCLUDES(mServiceMutex);

 private:
  // The library's own function would end the process if a call has no interface, or if an exception
  // has a type that the library does not define.
  bool handle_message(const DBus::Message& message) override;
  DBus::InterfaceAdaptor* interfaceOf(const DBus::CallMessage& call);
  bool letWait(const DBus::CallMessage& call);
  bool serve(const DBus::CallMessage& call) noexcept;
  bool answer(const DBus::CallMessage& call);
  bool answerWithoutService(const DBus::CallMessage& call) noexcept;
  ProxyManagerServiceImpl* service() const PM_REQUIRES(mServiceMutex);

  // Held during a call, so that detachService() waits until the call has ended.
  Mutex mServiceMutex;
  ProxyManagerServiceImpl* mService PM_GUARDED_BY(mServiceMutex);
  std::atomic<bool> mRefusesCalls{false};
  // How the call in progress is answered. Used only on the bus thread.
  bool mAnswersAlone = false;          // as if the handler had no service
  bool mAnswersWithoutScript = false;  // as if the script gave no answer
  std::unique_ptr<WaitingCalls> mWaitingCalls;
};
