#include "engine/worker/pac_functions.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <vector>

#include "engine/worker/address_text.h"
#include "engine/worker/utf8.h"

namespace pac_worker {
namespace {

constexpr char kSeparator = ';';

std::string joined(const std::vector<std::string>& texts) {
  std::string list;
  for (const std::string& text : texts) {
    if (!list.empty()) list += kSeparator;
    list += text;
  }
  return list;
}

// Four fields of digits are an address with a field too large, not a name: no name server may be
// asked for it.
bool isDigitsAndDots(std::string_view text) {
  return text.find_first_not_of("0123456789.") == text.npos;
}

bool mayBeName(std::string_view text) {
  const auto impossible = [](char c) {
    return static_cast<unsigned char>(c) <= 0x20U || c == 0x7F || c == ':' || c == '/' ||
           c == '[' || c == ']';
  };
  return !text.empty() && text.size() <= kLongestName && !isDigitsAndDots(text) &&
         std::none_of(text.begin(), text.end(), impossible) && isUtf8(text);
}

std::vector<std::string> lookUp(PacEnvironment& environment, std::string_view name,
                                AddressFamily family) {
  if (!mayBeName(name)) return {};
  return environment.resolve(name, family);
}

// The IPv4 address of a literal or a name.
std::optional<std::uint32_t> quadOf(PacEnvironment& environment, std::string_view host) {
  if (isAddressLiteral(host)) return parseQuad(host);
  for (const std::string& address : lookUp(environment, host, AddressFamily::kIpv4))
    if (const std::optional<std::uint32_t> quad = parseQuad(address)) return quad;
  return std::nullopt;
}

// A field of convert_addr as the bit operators of the language see it: a number modulo 2^32 without
// its fraction, 0 for what is no number.
std::uint8_t fieldOf(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == text.npos) return 0;
  text = text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
  const bool negative = text.front() == '-';
  if (negative || text.front() == '+') text.remove_prefix(1);
  // Only now: the parser would take a second sign, "inf" and "nan".
  if (text.empty() || text.front() < '0' || text.front() > '9') return 0;
  double value = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stopped != end) return 0;
  const auto low = static_cast<unsigned>(std::fmod(value, 256.0));
  return static_cast<std::uint8_t>(negative ? 256U - low : low);
}

}  // namespace

bool isPlainHostName(std::string_view host) {
  if (host.find('.') != host.npos) return false;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  return !isIpv6Literal(host);
}

bool dnsDomainIs(std::string_view host, std::string_view domain) {
  return host.ends_with(domain);
}

bool localHostOrDomainIs(std::string_view host, std::string_view hostdom) {
  if (!hostdom.starts_with(host)) return false;
  return hostdom.size() == host.size() || hostdom[host.size()] == '.';
}

std::size_t dnsDomainLevels(std::string_view host) {
  return static_cast<std::size_t>(std::count(host.begin(), host.end(), '.'));
}

bool isResolvable(PacEnvironment& environment, std::string_view host) {
  return quadOf(environment, host).has_value();
}

std::optional<std::string> dnsResolve(PacEnvironment& environment, std::string_view host) {
  if (isAddressLiteral(host)) return std::string(host);
  for (std::string& address : lookUp(environment, host, AddressFamily::kIpv4))
    if (parseQuad(address)) return std::move(address);
  return std::nullopt;
}

bool isInNet(PacEnvironment& environment, std::string_view host, std::string_view pattern,
             std::string_view mask) {
  const std::optional<std::uint32_t> wanted = parseQuad(pattern);
  const std::optional<std::uint32_t> bits = parseQuad(mask);
  if (!wanted || !bits) return false;
  const std::optional<std::uint32_t> address = quadOf(environment, host);
  return address && ((*address ^ *wanted) & *bits) == 0;
}

std::int32_t convertAddr(std::string_view text) {
  std::uint32_t number = 0;
  for (int field = 0; field < 4; ++field) {
    const std::size_t dot = std::min(text.find('.'), text.size());
    number = (number << 8U) | fieldOf(text.substr(0, dot));
    text.remove_prefix(std::min(dot + 1, text.size()));
  }
  return static_cast<std::int32_t>(number);
}

std::string myIpAddress(PacEnvironment& environment) {
  std::vector<std::string> addresses = environment.ownAddresses(AddressFamily::kIpv4);
  return addresses.empty() ? std::string(kLoopbackAddress) : std::move(addresses.front());
}

bool isResolvableEx(PacEnvironment& environment, std::string_view host) {
  return isAddressLiteral(host) || !lookUp(environment, host, AddressFamily::kAny).empty();
}

std::string dnsResolveEx(PacEnvironment& environment, std::string_view host) {
  if (isAddressLiteral(host)) return std::string(host);
  return joined(lookUp(environment, host, AddressFamily::kAny));
}

bool isInNetEx(std::string_view address, std::string_view prefix) {
  return liesInPrefix(address, prefix);
}

std::string myIpAddressEx(PacEnvironment& environment) {
  return joined(environment.ownAddresses(AddressFamily::kAny));
}

// One pass a family: a hostile list may be long, and this holds no more than its length.
std::optional<std::string> sortIpAddressList(std::string_view list) {
  std::string sorted;
  for (const bool wantIpv6 : {true, false}) {
    for (std::string_view rest = list; !rest.empty();) {
      const std::string_view entry = rest.substr(0, rest.find(kSeparator));
      rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
      if (entry.empty()) continue;
      const bool ipv6 = isIpv6Literal(entry);
      if (!ipv6 && !parseQuad(entry)) return std::nullopt;
      if (ipv6 != wantIpv6) continue;
      if (!sorted.empty()) sorted += kSeparator;
      sorted += entry;
    }
  }
  if (sorted.empty()) return std::nullopt;
  return sorted;
}

}  // namespace pac_worker
