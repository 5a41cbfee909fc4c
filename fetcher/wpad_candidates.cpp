#include "fetcher/wpad_candidates.h"

#include <algorithm>
#include <string_view>

#include "base/ascii.h"
#include "base/log_line.h"
#include "domain/public_suffix.h"
#include "domain/tld.h"

namespace fetcher {

namespace {

// RFC 1035, 2.3.4: 255 octets on the wire, that is 253 characters without the final dot.
constexpr std::size_t kLongestName = 253;
// Characters that end the host of a URL, or with which the host of the URL differs from the checked
// name ("%63om", "com:80"). A NUL ends the whole URL.
constexpr std::string_view kHostEnders{"/?#@:%\0", 7};

// A name with characters beyond ASCII is refused. libcurl would map it to ASCII before the lookup:
// after the checks, full stops and letters of other widths would become ordinary ASCII characters.
// A search list contains such names in their mapped form ("xn--").
bool isHost(std::string_view name) {
  return name.find_first_of(kHostEnders) == name.npos && base::isAscii(name);
}

std::string folded(std::string_view name) {
  return base::lowerCase(base::trimmed(name, "."));
}

bool hasDot(const std::string& name) {
  return name.find('.') != std::string::npos;
}

void addCandidatesOf(const std::string& token, std::vector<std::string>& candidates) {
  logLine(LOG_NOTICE, "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns domain for splice:%s",
          token.c_str());
  const std::string name = folded(token);
  if (name.size() > kLongestName || !isHost(name)) return;
  const std::string suffix = topLevelDomain(name);
  if (name == suffix || isPublicSuffix(name)) return;
  for (std::string rest = token; candidates.size() < kMostCandidates;) {
    candidates.push_back("http://wpad." + rest + "/wpad.dat");
    logLine(LOG_NOTICE, "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns push back candidate:%s",
            candidates.back().c_str());
    const auto dot = rest.find('.');
    if (dot == std::string::npos) return;
    rest.erase(0, dot + 1);
    const std::string remainder = folded(rest);
    if (remainder == suffix || !hasDot(remainder) || isPublicSuffix(remainder)) return;
  }
}

}  // namespace

std::vector<std::string> wpadUrlCandidates(const std::string& domain) {
  logLine(LOG_NOTICE, "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns domain:%s", domain.c_str());
  std::vector<std::string> candidates;
  std::string_view rest = domain;
  while (!rest.empty()) {
    const std::string_view token = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(token.size() + 1, rest.size()));
    addCandidatesOf(std::string(token), candidates);
  }
  logLine(LOG_INFO, "PACFetcher-wpadUrlCandidatesFromDomain wpad-dns candidates size:%d",
          static_cast<int>(candidates.size()));
  return candidates;
}

}  // namespace fetcher
