// A document of proxy information by provisioning domain (application/pvd+json): its content, and
// which parts of it apply to this client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace client::pvd {

/// Longest document, in bytes: enough for every document within the limits below.
inline constexpr std::size_t kMaxDocumentBytes = 256 * 1024;

/// A document above one of these limits (proxies, rules, values in one list of a rule) is refused
/// as a whole. If only a part of the document was used, traffic could go to a place to which the
/// whole document does not send it.
inline constexpr std::size_t kMaxProxies = 64;
inline constexpr std::size_t kMaxRules = 256;
inline constexpr std::size_t kMaxValues = 256;

/// Deepest nesting of arrays and objects. A document needs four levels; the other levels are for
/// later extensions.
inline constexpr std::size_t kMaxDepth = 16;

/// One entry of `proxies`, after its checks.
struct Proxy {
  std::string protocol;
  std::string location;                   ///< "host:port" or a URI template
  std::optional<std::string> identifier;  ///< a proxy without an identifier accepts any traffic
  bool speaksOtherHttp = false;           ///< its hint "alpn" names more than HTTP/1.1
  std::string whyIgnored;                 ///< empty if the proxy can be used
};

/// An address of 4 or 16 bytes, with the length of its prefix in bits.
struct Subnet {
  std::vector<std::uint8_t> bytes;
  unsigned length = 0;
  bool operator==(const Subnet&) const = default;
};

struct Ports {
  std::uint16_t first = 0;
  std::uint16_t last = 0;  ///< inclusive
};

/// One entry of `proxy-match`, after its checks. A missing condition matches everything.
struct Rule {
  std::vector<std::string> proxies;  ///< identifiers; if empty, no proxy of the document is used
  std::vector<std::string>
      domains;  ///< in lower case, without a dot at the end; may start with "*."
  std::vector<Subnet> subnets;
  std::vector<Ports> ports;
  std::string whyIgnored;  ///< empty if the rule can be used
};

struct Document {
  std::string identifier;  ///< as given
  std::string expires;     ///< as given
  std::vector<Proxy> proxies;
  std::vector<Rule> rules;
  std::vector<std::string> warnings;  ///< sentences for people
};

/// A document, or the reason why there is none.
struct Reading {
  std::optional<Document> document;
  std::string error;
};

/// Reads and checks a document.
/// @param host the proxy to which the document belongs. The document's identifier must name this
/// host. If `host` is not set, the identifier is not checked, and the document gets a warning
/// @param now seconds since 1970
Reading read(std::string_view text, const std::optional<std::string>& host, std::int64_t now);

/// The subnet as a text: "10.0.0.0/8".
std::string textOf(const Subnet& subnet);

/// The time "2026-05-15T06:00:00Z" (RFC 3339) in seconds since 1970.
std::optional<std::int64_t> timeOf(std::string_view text);

/// Whether `text` is a host name or an IPv4 address: letters, digits, "-", "_" and dots.
bool isHostName(std::string_view text);

}  // namespace client::pvd
