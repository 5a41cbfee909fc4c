#include "fetcher/resolver_file.h"

#include <algorithm>

#include "base/log_line.h"
#include "base/paths.h"
#include "base/small_file.h"

namespace fetcher {

namespace {

// A search list of 64 KiB contains more names than a walk can try.
constexpr std::size_t kMostBytes = std::size_t{64} * 1024;

}  // namespace

std::string domainOfResolverFile() {
  logLine(LOG_INFO, "PACFetcher-getDomainName called");
  const auto file = base::readFile(base::kResolverFile, {.mostBytes = kMostBytes});
  if (file.failure) {
    logLine(LOG_ERR, "PACFetcher-getDomainName open:%s failed", base::kResolverFile);
    return {};
  }
  return domainOfResolverText(file.text);
}

std::string domainOfResolverText(std::string_view text) {
  std::string_view domain;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const bool taken = line.find("search ") != line.npos || line.find("domain ") != line.npos;
    if (taken) domain = line.substr(line.find(' ') + 1);
  }
  return std::string(domain);
}

}  // namespace fetcher
