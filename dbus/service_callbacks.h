// The functions of the service that the bus object calls. service/callbacks.cpp implements them;
// tests replace them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "dbus/proxy_manager_service_interface.h"

class ProxyManagerServiceImpl;

/// Each function calls the service's member function of the same name. The functions run on the bus
/// thread, with the handler's mutex held. Exceptions of the service pass through.
namespace service_callbacks {

std::vector<std::string> getProxyUrl(ProxyManagerServiceImpl& service,
                                     const std::string& requestUrl);
/// The answer that getProxyUrl() returns if the script has no answer. Never waits.
std::vector<std::string> getProxyUrlWithoutScript(ProxyManagerServiceImpl& service);
com::zentu::ProxyConfigTexts getProxyConfig(ProxyManagerServiceImpl& service);
std::int32_t updateProxyConfig(ProxyManagerServiceImpl& service, const std::string& mode,
                               const std::string& proxyurl, const std::string& pacurl,
                               bool enableauth, const std::string& userName,
                               const std::string& password);

}  // namespace service_callbacks
