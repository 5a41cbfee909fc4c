#include "client/url_host.h"

#include "domain/url_host.h"
#include "service/proxy_config_owner.h"

namespace client {

std::string hostOf(const std::string& url) {
  const HeapText host(getHost(url));
  return host == nullptr ? "" : host.get();
}

}  // namespace client
