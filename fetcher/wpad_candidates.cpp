// Where WPAD by DNS looks: the device's domain or search list, and the URLs made of it.
//
// A name is cut label by label, and never down to a public suffix: whoever registers "wpad" under
// one would be asked by every device in it. Two judges say what a public suffix is, the lookup in
// the built-in table and a silent guard that knows wildcard rules and the system's current list;
// one is enough to stop. Both see the name folded (lower case, no outer dots); the URLs keep it as
// it came. What the judges see must be the host that is asked, so a name that would not be the
// whole host of its URL, such as "com/.example.com", has none.
#include <algorithm>
#include <string_view>

#include "base/ascii.h"
#include "base/log_line.h"
#include "base/paths.h"
#include "base/small_file.h"
#include "domain/public_suffix.h"
#include "domain/tld.h"
#include "fetcher/fetcher_log.h"
#include "fetcher/pac_fetcher.h"
#include "fetcher/resolver_text.h"

using fetcher::kLogClass;

namespace {

// A search list of 64 KiB holds more names than anybody waits for.
constexpr std::size_t kResolverFileLimit = std::size_t{64} * 1024;
// RFC 1035, 2.3.4: 255 octets on the wire, that is 253 characters without the final dot.
constexpr std::size_t kLongestName = 253;
// At up to 30 seconds each, more would keep an update waiting for hours.
constexpr std::size_t kMostCandidates = 256;
// What ends the host of a URL, or says another one than the judges see ("%63om", "com:80"). A NUL
// ends the whole URL.
constexpr std::string_view kNoHost{"/?#@:%\0", 7};

// Beyond ASCII a name is mapped before it is asked for: full stops and letters of other widths come
// out as ordinary ones, which the judges never saw. A search list has the mapped form ("xn--").
bool isHost(std::string_view name) {
  return name.find_first_of(kNoHost) == name.npos && base::isAscii(name);
}

constexpr char kFunction[] = "wpadUrlCandidatesFromDomain";

std::string folded(std::string_view name) {
  return base::lowerCase(base::trimmed(name, "."));
}

bool hasDot(const std::string& name) {
  return name.find('.') != std::string::npos;
}

void addCandidatesOf(const std::string& token, std::vector<std::string>& candidates) {
  logLine(LOG_NOTICE, "%s%s wpad-dns domain for splice:%s", kLogClass, kFunction, token.c_str());
  const std::string name = folded(token);
  if (name.size() > kLongestName || !isHost(name)) return;
  const std::string suffix = topLevelDomain(name);
  if (name == suffix || isPublicSuffix(name)) return;
  for (std::string rest = token; candidates.size() < kMostCandidates;) {
    candidates.push_back("http://wpad." + rest + "/wpad.dat");
    logLine(LOG_NOTICE, "%s%s wpad-dns push back candidate:%s", kLogClass, kFunction,
            candidates.back().c_str());
    const auto dot = rest.find('.');
    if (dot == std::string::npos) return;
    rest.erase(0, dot + 1);
    const std::string remainder = folded(rest);
    if (remainder == suffix || !hasDot(remainder) || isPublicSuffix(remainder)) return;
  }
}

}  // namespace

std::string PACFetcher::getDomainName() const {
  logLine(LOG_INFO, "%s%s called", kLogClass, __func__);
  const auto [text, failure] =
      base::readFile(base::kResolverFile, {.mostBytes = kResolverFileLimit});
  if (failure) {
    logLine(LOG_ERR, "%s%s open:%s failed", kLogClass, __func__, base::kResolverFile);
    return {};
  }
  return fetcher::domainOfResolverText(text);
}

std::vector<std::string> PACFetcher::wpadUrlCandidatesFromDomain(const std::string& domain) const {
  logLine(LOG_NOTICE, "%s%s wpad-dns domain:%s", kLogClass, __func__, domain.c_str());
  std::vector<std::string> candidates;
  std::string_view rest = domain;
  while (!rest.empty()) {
    const std::string_view token = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(token.size() + 1, rest.size()));
    addCandidatesOf(std::string(token), candidates);
  }
  logLine(LOG_INFO, "%s%s wpad-dns candidates size:%d", kLogClass, __func__,
          static_cast<int>(candidates.size()));
  return candidates;
}
