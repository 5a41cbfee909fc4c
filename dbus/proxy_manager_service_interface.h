// The daemon's contract on the bus, in the form that the bus library needs.
//
// The adaptor turns incoming calls into four virtual operations, and their results into replies.
// com.zentu.ProxyManagerServiceInterface.xml in this folder defines the names, their casing and
// their signatures. A stub reads its arguments in order. The bus library checks their types: if a
// type is wrong, it raises its invalid-arguments error, and the operation is not called. Bus
// thread.
#pragma once

#include <dbus-c++/dbus.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/bus_names.h"

namespace com {
namespace zentu {

/// mode, proxy URL, PAC URL, "y" or "n", user name, password: "(ssssss)" on the bus.
using ProxyConfigTexts =
    ::DBus::Struct<std::string, std::string, std::string, std::string, std::string, std::string>;

class ProxyManagerServiceInterface_adaptor : public ::DBus::InterfaceAdaptor {
 public:
  static constexpr const char* kInterface = base::kInterface;

  ProxyManagerServiceInterface_adaptor();

  /// The static table of the interface; the library only reads it.
  ::DBus::IntrospectedInterface* introspect() const override;

  /// Whether the interface has a method of this name.
  bool hasMethod(const char* name) const;

  virtual bool checkServicestarted() = 0;
  virtual std::vector<std::string> getProxyurl(const std::string& requestUrl) = 0;
  virtual ProxyConfigTexts getProxyconfig() = 0;
  virtual std::int32_t updateProxyconfig(const std::string& mode, const std::string& proxyurl,
                                         const std::string& pacurl, const bool& enableauth,
                                         const std::string& userName,
                                         const std::string& password) = 0;

  // The signals. In a text that is not valid UTF-8, "?" replaces each byte above 127. Bus thread.
  void notifyProxyConfigupdated(const std::string& proxymode, const std::string& proxyurl,
                                const std::string& username, const std::string& password);
  void notifyClearcache();
  void ProxyMgrStateEvent(std::int32_t eventType);

 private:
  ::DBus::Message _checkServicestarted_stub(const ::DBus::CallMessage& call);
  ::DBus::Message _getProxyurl_stub(const ::DBus::CallMessage& call);
  ::DBus::Message _getProxyconfig_stub(const ::DBus::CallMessage& call);
  ::DBus::Message _updateProxyconfig_stub(const ::DBus::CallMessage& call);
};

}  // namespace zentu
}  // namespace com
