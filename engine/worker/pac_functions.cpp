#include "engine/worker/pac_functions.h"

#include <algorithm>
#include <tuple>
#include <vector>

#include "base/ascii.h"
#include "base/utf8.h"
#include "engine/worker/address_text.h"

namespace pac_worker {
namespace {

constexpr char kSeparator = ';';

template <typename Text>
std::string joined(const std::vector<Text>& texts) {
  std::string list;
  for (const Text& text : texts) {
    if (!list.empty()) list += kSeparator;
    list += text;
  }
  return list;
}

// A text of digits and dots may be no address, for example if a field is too large. Such a text is
// not a name either, so no name server may be asked for it.
bool isDigitsAndDots(std::string_view text) {
  return text.find_first_not_of("0123456789.") == text.npos;
}

bool mayBeName(std::string_view text) {
  const auto impossible = [](char c) {
    return base::isControl(c) || c == ' ' || c == ':' || c == '/' || c == '[' || c == ']';
  };
  return !text.empty() && text.size() <= kLongestName && !isDigitsAndDots(text) &&
         std::none_of(text.begin(), text.end(), impossible) && base::isUtf8(text);
}

std::vector<std::string> lookUp(PacEnvironment& environment, std::string_view name,
                                AddressFamily family) {
  if (!mayBeName(name)) return {};
  return environment.resolve(name, family);
}

// An entry of a list that is to be sorted.
struct Entry {
  bool ipv4;
  Address address;
  std::string_view text;
};

}  // namespace

bool isPlainHostName(std::string_view host) {
  if (host.find('.') != host.npos) return false;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    return !parseIpv6(host.substr(1, host.size() - 2));
  return !parseAddress(host);
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

std::optional<std::string> dnsResolve(PacEnvironment& environment, std::string_view host) {
  if (const std::optional<std::uint32_t> literal = parseIpv4(host)) return textOfIpv4(*literal);
  if (parseIpv6(host)) return std::nullopt;
  for (std::string& address : lookUp(environment, host, AddressFamily::kIpv4))
    if (parseQuad(address)) return std::move(address);
  return std::nullopt;
}

std::string myIpAddress(PacEnvironment& environment) {
  std::vector<std::string> addresses = environment.ownAddresses(AddressFamily::kIpv4);
  if (addresses.empty()) addresses = environment.ownAddresses(AddressFamily::kAny);
  return addresses.empty() ? std::string(kLoopbackAddress) : std::move(addresses.front());
}

std::string dnsResolveEx(PacEnvironment& environment, std::string_view host) {
  if (const std::optional<std::uint32_t> literal = parseIpv4(host)) return textOfIpv4(*literal);
  if (const std::optional<Address> literal = parseIpv6(host)) return textOfIpv6(*literal);
  return joined(lookUp(environment, host, AddressFamily::kAny));
}

std::string myIpAddressEx(PacEnvironment& environment) {
  const std::vector<std::string> addresses = environment.ownAddresses(AddressFamily::kAny);
  return addresses.empty() ? std::string(kLoopbackAddress) : joined(addresses);
}

std::optional<std::string> sortIpAddressList(std::string list) {
  if (list.size() > kLongestSortedList) return std::nullopt;
  std::erase_if(list, [](char c) { return c == ' ' || c == '\t'; });
  std::vector<Entry> entries;
  for (std::string_view rest = list; !rest.empty();) {
    const std::string_view text = rest.substr(0, rest.find(kSeparator));
    rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    if (text.empty()) continue;
    const std::optional<Address> address = parseAddress(text);
    if (!address) return std::nullopt;
    entries.push_back({parseIpv4(text).has_value(), *address, text});
  }
  if (entries.empty()) return std::nullopt;
  std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return std::tie(a.ipv4, a.address) < std::tie(b.ipv4, b.address);
  });
  std::vector<std::string_view> texts;
  for (const Entry& entry : entries) texts.push_back(entry.text);
  return joined(texts);
}

}  // namespace pac_worker
