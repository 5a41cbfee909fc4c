#include "engine/host/name_lookup.h"

#include <arpa/inet.h>
#include <idn2.h>
#include <netinet/in.h>

#include <algorithm>

#include "base/ascii.h"

namespace pac_engine {

namespace {

constexpr std::size_t kMaxAsciiName = 254;  // 253 characters and the dot of the root (RFC 1035)

using IdnText = std::unique_ptr<char, decltype(&idn2_free)>;

bool mayStand(char c) {
  return c > ' ' && c != 0x7F;
}

bool isIpv4(const std::string& address) {
  in_addr binary{};
  return inet_pton(AF_INET, address.c_str(), &binary) == 1;
}

/// `name` without the dot of the root.
std::string_view relative(std::string_view name) {
  if (name.ends_with('.')) name.remove_suffix(1);
  return name;
}

/// RFC 6761, 6.3: these names are the loopback addresses, and no server is asked for them.
bool isLocalhost(std::string_view name) {
  name = relative(name);
  const bool hasEmptyLabel = name.starts_with('.') || name.find("..") != name.npos;
  return name == "localhost" || (name.ends_with(".localhost") && !hasEmptyLabel);
}

/// The dotted quad of `name`, if `name` is an IPv4 literal in a form that a URL may have. The
/// worker itself recognises literals in ASCII. But the mapping of an international name to ASCII
/// may also give a literal.
std::optional<std::string> ipv4Literal(std::string_view name) {
  in_addr binary{};
  char text[INET_ADDRSTRLEN] = "";
  if (inet_aton(std::string(relative(name)).c_str(), &binary) == 0) return std::nullopt;
  return inet_ntop(AF_INET, &binary, text, sizeof text);
}

/// True, for example, for an IPv4 literal with a field that is too large.
bool isDigitsAndDots(std::string_view name) {
  return name.find_first_not_of("0123456789.") == name.npos;
}

std::vector<std::string> ofFamily(const std::vector<std::string>& addresses, AddressFamily family) {
  std::vector<std::string> wanted;
  std::copy_if(addresses.begin(), addresses.end(), std::back_inserter(wanted),
               [&](const auto& one) { return family == AddressFamily::kAny || isIpv4(one); });
  return wanted;
}

}  // namespace

std::optional<std::string> asciiName(std::string_view name) {
  std::string ascii(name);
  if (!base::isAscii(name)) {
    char* raw = nullptr;
    // The same mapping as in browsers: letters become lower-case letters of normal width, and
    // special letters such as sharp s follow the current standard.
    const int status = idn2_to_ascii_8z(ascii.c_str(), &raw, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL);
    const IdnText owned(raw, &idn2_free);
    if (status != IDN2_OK || ascii.find('\0') != std::string::npos) return std::nullopt;
    ascii = raw;
  }
  if (ascii.empty() || ascii.size() > kMaxAsciiName) return std::nullopt;
  if (!std::all_of(ascii.begin(), ascii.end(), mayStand)) return std::nullopt;
  return base::lowerCase(ascii);
}

NameLookup::NameLookup(NameSource source)
    : mSource(std::move(source)), mResolver(mSource.nameServers) {
  if (!mSource.staticNames) return;
  StaticNames byAscii;
  for (auto& [name, addresses] : *mSource.staticNames) {
    if (auto ascii = asciiName(name)) byAscii[std::string(relative(*ascii))] = std::move(addresses);
  }
  mSource.staticNames = std::move(byAscii);
}

void NameLookup::begin() {
  mAsked.clear();
  mConfigurationSeen = false;
}

std::vector<std::string> NameLookup::resolve(std::string_view name, AddressFamily family,
                                             Deadline deadline, int watched) {
  const auto ascii = asciiName(name);
  if (!ascii) return {};
  if (auto known = withoutServer(*ascii)) return ofFamily(*known, family);
  if (mAsked.count(*ascii) == 0 && mAsked.size() == kNamesPerEvaluation) {
    if (mSource.onRefused) mSource.onRefused(name);
    return {};
  }
  auto& known = mAsked[*ascii];
  const auto found = known.find(family);
  if (found != known.end()) return found->second;
  return known[family] = find(*ascii, family, deadline, watched);
}

std::optional<std::vector<std::string>> NameLookup::withoutServer(const std::string& name) const {
  using Texts = std::vector<std::string>;
  if (auto literal = ipv4Literal(name)) return Texts{std::move(*literal)};
  if (isDigitsAndDots(name)) return Texts();
  const bool isGiven =
      mSource.staticNames && mSource.staticNames->count(std::string(relative(name))) != 0;
  if (isLocalhost(name) && !isGiven) return Texts{"::1", "127.0.0.1"};
  if (mSource.offline) return Texts();
  return std::nullopt;
}

std::vector<std::string> NameLookup::find(const std::string& name, AddressFamily family,
                                          Deadline deadline, int watched) {
  if (mSource.staticNames) {
    const auto given = mSource.staticNames->find(std::string(relative(name)));
    return given == mSource.staticNames->end() ? std::vector<std::string>()
                                               : ofFamily(given->second, family);
  }
  if (!mConfigurationSeen) {
    mConfigurationSeen = true;
    // Another network may give the same name another address.
    if (mResolver.configurationChanged()) mCache.clear();
  }
  const LookupCache::Key key(name, family);
  if (auto cached = mCache.find(key, LookupCache::Clock::now())) return *cached;
  return query(key, deadline, watched);
}

std::vector<std::string> NameLookup::query(const LookupCache::Key& key, Deadline deadline,
                                           int watched) {
  const auto limit = std::chrono::steady_clock::now() + kLookupLimit;
  auto result = mResolver.lookUp(key.first, key.second, std::min(limit, deadline), watched);
  // If a lookup had less time than 2 s, or if its caller has ended, a missing answer does not mean
  // that the name has no address.
  const bool cutShort = result.end == LookupEnd::kTooLate && deadline < limit;
  if (!cutShort && result.end != LookupEnd::kAbandoned) {
    mCache.store(key, result.addresses, result.lifetime, LookupCache::Clock::now());
  }
  return std::move(result.addresses);
}

}  // namespace pac_engine
