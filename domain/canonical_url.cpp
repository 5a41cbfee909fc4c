#include "domain/canonical_url.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <boost/url/authority_view.hpp>
#include <charconv>

#include "base/ascii.h"

namespace domain {

namespace {

namespace urls = boost::urls;

constexpr std::string_view kMark = "://";

struct DefaultPort {
  std::string_view scheme;
  std::string_view port;
};
constexpr std::array<DefaultPort, 5> kDefaultPorts{
    {{"http", "80"}, {"https", "443"}, {"ws", "80"}, {"wss", "443"}, {"ftp", "21"}}};

// RFC 3986, 3.1: a letter, then letters, digits, "+", "-" and ".".
bool isScheme(std::string_view text) {
  return !text.empty() && text.front() >= 'a' && text.front() <= 'z' &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || base::isDigit(c) ||
                  std::string_view("+-.").find(c) != std::string_view::npos;
         });
}

/// Whether traffic of this scheme is encrypted, so that only the server sees the URL's path and
/// query.
bool isEncrypted(std::string_view scheme) {
  return scheme == "https" || scheme == "wss";
}

// The authority in a form that the parser accepts. The parser accepts bytes beyond ASCII only if
// they are percent-encoded. A leading digit is encoded, too, because Boost.URL 1.81 reads
// "10.0.0.1.example" as the address 10.0.0.1 with more text after it. The code in this file
// recognises addresses itself.
std::string parserForm(std::string_view authority) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string result;
  for (const char c : authority) {
    const auto byte = static_cast<unsigned char>(c);
    if (base::isAscii(c) && (!result.empty() || !base::isDigit(c))) {
      result += c;
    } else {
      result += {'%', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
    }
  }
  return result;
}

// Boost.URL 1.81 does not support zones (RFC 6874), so the zone is removed before the parsing.
// @return false if the zone cannot be the name of an interface
bool takeZone(std::string& authority, std::string& zone) {
  const auto end = authority.find(']');
  const auto percent = authority.find('%');
  if (authority.front() != '[' || end == std::string::npos || percent > end) return true;
  zone = authority.substr(percent + 1, end - percent - 1);
  if (zone.starts_with("25") && zone.size() > 2) zone.erase(0, 2);
  authority.erase(percent, end - percent);
  return !zone.empty() && zone.size() < IF_NAMESIZE &&
         std::all_of(zone.begin(), zone.end(), [](char c) {
           return (base::isLetter(c) || base::isDigit(c)) ||
                  std::string_view("-._~").find(c) != std::string_view::npos;
         });
}

// A program that connects to "10.1" or "0x0a000001" connects to 10.0.0.1, so the script must see
// 10.0.0.1.
std::string quadIfNumber(const std::string& name) {
  in_addr address{};
  std::array<char, INET_ADDRSTRLEN> quad{};
  if (inet_aton(name.c_str(), &address) == 0) return name;
  inet_ntop(AF_INET, &address, quad.data(), quad.size());
  return quad.data();
}

std::optional<std::string> hostName(const urls::authority_view& authority) {
  std::string name;
  for (const char c : foldedHost(authority.host_name())) {
    // The parser has decoded the name: "%41" is "a" here. A percent sign that remains is encoded
    // again, so "%2541" stays "%2541".
    if (c == '%') {
      name += "%25";
    } else if (!base::isAscii(c) || (base::isLetter(c) || base::isDigit(c)) ||
               std::string_view("-._~!$&'()*+,;=").find(c) != std::string_view::npos) {
      name += c;
    } else {
      return std::nullopt;
    }
  }
  if (name.empty()) return std::nullopt;
  return quadIfNumber(name);
}

std::optional<std::string> hostOf(const urls::authority_view& authority, const std::string& zone) {
  switch (authority.host_type()) {
    case urls::host_type::ipv6:
      return '[' + authority.host_ipv6_address().to_string() + (zone.empty() ? "" : "%25" + zone) +
             ']';
    case urls::host_type::name:
      return zone.empty() ? hostName(authority) : std::nullopt;
    default:
      return std::nullopt;
  }
}

/// @return the port with its colon; an empty text for the default port; no value for a port beyond
/// 65535
std::optional<std::string> portOf(std::string_view scheme, std::string_view digits) {
  if (digits.empty()) return std::string();
  std::uint16_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  const auto port = std::to_string(number);
  const bool isDefault =
      std::any_of(kDefaultPorts.begin(), kDefaultPorts.end(),
                  [&](const auto& entry) { return entry.scheme == scheme && entry.port == port; });
  return isDefault ? std::string() : ':' + port;
}

/// Host and port in their canonical form.
std::optional<std::string> canonicalAuthority(const std::string& scheme,
                                              std::string_view authority) {
  // User name and password are removed before the parsing, because a password may have characters
  // that the parser refuses. A URL with two "@" is refused, because some programs end the password
  // at the first "@" and others at the last one.
  if (const auto at = authority.find('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
    if (authority.find('@') != std::string_view::npos) return std::nullopt;
  }
  if (scheme == "file") {
    const auto host = base::lowerCase(authority);
    if (host.empty() || host == "localhost" || host == "127.0.0.1") return std::string();
    return std::nullopt;
  }
  std::string zone;
  std::string text(authority);
  if (text.empty() || !takeZone(text, zone)) return std::nullopt;
  text = parserForm(text);
  const auto parsed = urls::parse_authority(text);
  if (!parsed) return std::nullopt;
  const auto host = hostOf(*parsed, zone);
  const auto port = portOf(scheme, parsed->port());
  if (!host || !port) return std::nullopt;
  return *host + *port;
}

}  // namespace

std::optional<std::string> canonicalUrl(std::string_view url, std::size_t maxBytes) {
  if (url.size() > maxBytes) return std::nullopt;
  const auto mark = url.find(kMark);
  if (mark == std::string_view::npos) return std::string(url);
  const auto scheme = base::lowerCase(url.substr(0, mark));
  if (!isScheme(scheme)) return std::string(url);

  auto rest = url.substr(mark + kMark.size());
  const bool hasControl = std::any_of(rest.begin(), rest.end(), base::isControl);
  rest = rest.substr(0, rest.find('#'));
  const auto authority = rest.substr(0, rest.find_first_of("/?"));
  const auto host = hasControl ? std::nullopt : canonicalAuthority(scheme, authority);
  if (!host) return scheme + ":///";

  auto canonical = scheme + std::string(kMark) + *host;
  rest.remove_prefix(authority.size());
  if (isEncrypted(scheme)) rest = "/";
  if (!rest.starts_with('/')) canonical += '/';
  canonical += rest;
  if (canonical.size() > maxBytes) return std::nullopt;
  return canonical;
}

std::string foldedHost(std::string_view host) {
  std::string folded;
  for (std::size_t i = 0; i < host.size(); ++i) {
    const auto byte = [&](std::size_t after) {
      return i + after < host.size() ? static_cast<unsigned char>(host[i + after]) : 0U;
    };
    const auto last = byte(2);
    // U+3002, U+FF61, then U+FF01 to U+FF5E, in UTF-8.
    const bool isStop = (byte(0) == 0xE3 && byte(1) == 0x80 && last == 0x82) ||
                        (byte(0) == 0xEF && byte(1) == 0xBD && last == 0xA1);
    const bool isWide = byte(0) == 0xEF && ((byte(1) == 0xBC && last >= 0x81 && last <= 0xBF) ||
                                            (byte(1) == 0xBD && last >= 0x80 && last <= 0x9E));
    if (isStop) {
      folded += '.';
    } else if (isWide) {
      folded += base::lowerCase(static_cast<char>(byte(1) == 0xBC ? last - 0x60 : last - 0x20));
    } else {
      folded += base::lowerCase(host[i]);
      continue;
    }
    i += 2;
  }
  return folded;
}

bool hasScheme(std::string_view url) {
  const auto mark = url.find(kMark);
  return mark != std::string_view::npos && isScheme(base::lowerCase(url.substr(0, mark)));
}

}  // namespace domain
