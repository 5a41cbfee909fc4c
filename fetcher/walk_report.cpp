#include "fetcher/walk_report.h"

#include "domain/canonical_url.h"
#include "fetcher/wire/packets.h"

namespace fetcher {

namespace {

/// The host of `url` without user and password. A text without a scheme is not shown.
std::string shownHost(const std::string& url) {
  if (url.empty()) return "(no URL)";
  if (!domain::hasScheme(url)) return "(a URL without a scheme)";
  const std::string canonical = domain::canonicalUrl(url, kMostUrlBytes).value_or("");
  const auto colon = canonical.find("://");
  if (colon == std::string::npos) return "(no host)";
  const auto host = canonical.substr(colon + 3, canonical.find('/', colon + 3) - colon - 3);
  return host.empty() ? "(no host)" : host;
}

}  // namespace

void WalkReport::failed(const std::string& url, const std::string& why) {
  ++mFailed;
  mHost = shownHost(url);
  mWhy = why;
}

void WalkReport::installed(const std::string& url) {
  mHasScript = true;
  mHost = shownHost(url);
}

std::string WalkReport::text() const {
  if (mHasScript) return "script from " + mHost;
  if (mFailed == 0) return "no script, there is no URL to ask";
  if (mFailed == 1) return "no script from " + mHost + ": " + mWhy;
  return "no script from " + std::to_string(mFailed) + " URLs, the last " + mHost + ": " + mWhy;
}

}  // namespace fetcher
