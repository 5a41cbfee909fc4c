// The functions of the service that fetcher/, pac/ and dbus/ call. These folders call the service
// only through this file.
#include "dbus/service_callbacks.h"
#include "fetcher/service_callbacks.h"
#include "pac/service_callbacks.h"
#include "service/proxy_manager_service_impl.h"

namespace service_callbacks {

bool notifyFileUpdated(ProxyManagerServiceImpl* service) {
  if (service == nullptr) return false;
  service->pacFileUpdated();
  return service->hasScript();
}

void notifyContentUpdated(ProxyManagerServiceImpl* service) {
  if (service != nullptr) service->pacContentUpdated();
}

std::vector<std::string> getProxyUrl(ProxyManagerServiceImpl& service,
                                     const std::string& requestUrl) {
  return service.getProxyUrl(requestUrl);
}

std::vector<std::string> getProxyUrlWithoutScript(ProxyManagerServiceImpl& service) {
  return service.getProxyUrlWithoutScript();
}

com::zentu::ProxyConfigTexts getProxyConfig(ProxyManagerServiceImpl& service) {
  return service.getProxyConfig();
}

std::int32_t updateProxyConfig(ProxyManagerServiceImpl& service, const std::string& mode,
                               const std::string& proxyurl, const std::string& pacurl,
                               bool enableauth, const std::string& userName,
                               const std::string& password) {
  return service.updateProxyConfig(mode, proxyurl, pacurl, enableauth, userName, password);
}

}  // namespace service_callbacks
