#include "domain/url_host.h"

#include "base/log_line.h"
#include "service/records/proxy_config.h"

namespace {

char* copyOf(const std::string& host) {
  return string2Char(host.c_str(), static_cast<std::int32_t>(host.size()));
}

}  // namespace

char* getHost(const std::string& url) {
  logLine(LOG_INFO, "getHost url:%s", url.c_str());
  const auto scheme = url.find("://");
  if (scheme == std::string::npos) return copyOf(url);

  std::string host = url.substr(scheme + 3);
  std::string port;
  // A slash as the first character does not end the host.
  if (const auto slash = host.find('/'); slash != 0 && slash != std::string::npos)
    host.erase(slash);
  if (const auto colon = host.find(':'); colon != std::string::npos) {
    port = host.substr(colon + 1);
    host.erase(colon);
  }
  logLine(LOG_INFO, "getHost host:%s, port:%s", host.c_str(), port.c_str());
  return copyOf(host);
}
