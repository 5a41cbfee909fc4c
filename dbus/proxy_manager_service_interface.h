// The daemon's contract on the bus, as the bus library knows it.
//
// The adaptor turns incoming calls into four virtual operations, and their results into replies.
// com.zentu.ProxyManagerServiceInterface.xml in this folder defines the names, their casing and
// their signatures. A stub reads its arguments in order. The bus library checks the types, and
// raises its invalid-arguments error before the operation is called. Bus thread.
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

  // The signals. Bytes that are not UTF-8 are replaced in their texts. Bus thread.
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
