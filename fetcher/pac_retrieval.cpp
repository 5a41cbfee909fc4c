// The walk over the candidate URLs: which are tried, in which order, and how a script is installed.
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/log_line.h"
#include "fetcher/fetcher_log.h"
#include "fetcher/pac_fetcher.h"
#include "fetcher/service_callbacks.h"
#include "platform/netservice/dhcp_info.h"

using fetcher::kLogClass;

namespace {
constexpr char kFunction[] = "retrievePacFile";
}  // namespace

int PACFetcher::retrievePacFile() {
  const ProxyMode mode = mConfig->mode;
  logLine(LOG_NOTICE, "%s%s proxy mode:%d", kLogClass, kFunction, static_cast<int>(mode));
  if (mode <= manual) return 0;
  std::vector<std::string> candidates;
  if (!(mode == pacurl ? addUserUrl(candidates) : addDiscoveredUrls(candidates))) return -1;
  bool blocked = false;
  for (const std::string& url : candidates) {
    const Attempt attempt = install(url);
    if (attempt == Attempt::installed) return 0;
    blocked = blocked || attempt == Attempt::blockedByFolder;
  }
  // rename cannot replace a folder that somebody left at the script's name. An empty one goes, so
  // that the next walk is not held up too; rmdir takes nothing else.
  if (blocked) rmdir(mPacFileName.c_str());
  return 0;
}

bool PACFetcher::addUserUrl(std::vector<std::string>& candidates) const {
  const char* const url = mConfig->pacurl;
  if (url == nullptr) {
    logLine(LOG_ERR, "%s%s proxy mode is PACURL, proxyconfig.pacurl is empty", kLogClass,
            kFunction);
    return false;
  }
  logLine(LOG_NOTICE, "%s%s Using user-provided PAC URL: '%s'", kLogClass, kFunction, url);
  candidates.emplace_back(url);
  return true;
}

bool PACFetcher::addDiscoveredUrls(std::vector<std::string>& candidates) const {
  DhcpInfo lease;
  if (const int rc = getdhcpinfo(&lease); rc != 0) {
    logLine(LOG_ERR, "%s%s getdhcpinfo error rc:%d", kLogClass, kFunction, rc);
    return false;
  }
  candidates.emplace_back(lease.option252);
  logLine(LOG_NOTICE, "%s%s wpad-dhcp opt252:%s", kLogClass, kFunction, lease.option252);
  for (std::string& url : wpadUrlCandidatesFromDomain(getDomainName())) {
    logLine(LOG_INFO, "%s%s wpad-dns push back candidate url:%s", kLogClass, kFunction,
            url.c_str());
    candidates.push_back(std::move(url));
  }
  return true;
}

PACFetcher::Attempt PACFetcher::install(const std::string& url) const {
  logLine(LOG_NOTICE, "%s%s try to fileDownload url:%s", kLogClass, kFunction, url.c_str());
  const std::string temporary = mPacFileName + ".tmp";
  if (!fileDownload(url, temporary) || !isValidPacFile(temporary)) {
    logLine(LOG_ERR, "%s%s PAC file download failed url:%s", kLogClass, kFunction, url.c_str());
    std::remove(temporary.c_str());
    return Attempt::failed;
  }
  if (std::rename(temporary.c_str(), mPacFileName.c_str()) != 0) {
    const Attempt attempt = errno == EISDIR ? Attempt::blockedByFolder : Attempt::failed;
    logLine(LOG_ERR, "%s%s file rename failed tmpFile:%s, targetFile:%s", kLogClass, kFunction,
            temporary.c_str(), mPacFileName.c_str());
    std::remove(temporary.c_str());
    return attempt;
  }
  logLine(LOG_NOTICE, "%s%s PAC file download success url:%s", kLogClass, kFunction, url.c_str());
  service_callbacks::notifyFileUpdated(mService);
  return Attempt::installed;
}
