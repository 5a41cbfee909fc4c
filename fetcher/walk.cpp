#include "fetcher/walk.h"

#include "base/log_line.h"
#include "fetcher/resolver_file.h"
#include "fetcher/wpad_candidates.h"
#include "platform/netservice/dhcp_info.h"

namespace fetcher {

namespace {

std::optional<std::vector<std::string>> usersCandidate(const char* url) {
  if (url == nullptr) {
    logLine(LOG_ERR,
            "PACFetcher-retrievePacFile proxy mode is PACURL, proxyconfig.pacurl is empty");
    return std::nullopt;
  }
  logLine(LOG_NOTICE, "PACFetcher-retrievePacFile Using user-provided PAC URL: '%s'", url);
  return std::vector<std::string>{url};
}

std::optional<std::vector<std::string>> discoveredCandidates() {
  DhcpInfo lease;
  if (const int rc = getdhcpinfo(&lease); rc != 0) {
    logLine(LOG_ERR, "PACFetcher-retrievePacFile getdhcpinfo error rc:%d", rc);
    return std::nullopt;
  }
  std::vector<std::string> candidates{lease.option252};
  logLine(LOG_NOTICE, "PACFetcher-retrievePacFile wpad-dhcp opt252:%s", lease.option252);
  for (std::string& url : wpadUrlCandidates(domainOfResolverFile())) {
    logLine(LOG_INFO, "PACFetcher-retrievePacFile wpad-dns push back candidate url:%s",
            url.c_str());
    candidates.push_back(std::move(url));
  }
  return candidates;
}

}  // namespace

std::optional<std::vector<std::string>> candidatesOf(const ProxyConfig& config) {
  return config.mode == pacurl ? usersCandidate(config.pacurl) : discoveredCandidates();
}

}  // namespace fetcher
