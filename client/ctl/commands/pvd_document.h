// A document of proxy information by provisioning domain (application/pvd+json): what it says, and
// what of it holds for a client as this one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace client::pvd {

/// Longest document in bytes: the largest that the limits below leave useful.
inline constexpr std::size_t kMaxDocumentBytes = 256 * 1024;

/// A document with more proxies, more rules, or more values in one list of a rule is not used at
/// all: a part of it could send traffic where the whole would not.
inline constexpr std::size_t kMaxProxies = 64;
inline constexpr std::size_t kMaxRules = 256;
inline constexpr std::size_t kMaxValues = 256;

/// Nesting of arrays and objects: a document needs four levels, and those to come a few more.
inline constexpr std::size_t kMaxDepth = 16;

/// One of `proxies`, after its checks.
struct Proxy {
  std::string protocol;
  std::string location;                   ///< "host:port" or a URI template
  std::optional<std::string> identifier;  ///< without one it takes any traffic
  std::string whyIgnored;                 ///< empty if it can be used
};

/// An address with the number of its leading bits that count; 4 or 16 bytes.
struct Subnet {
  std::vector<std::uint8_t> bytes;
  unsigned length = 0;
  bool operator==(const Subnet&) const = default;
};

struct Ports {
  std::uint16_t first = 0;
  std::uint16_t last = 0;  ///< inclusive
};

/// One of `proxy-match`, after its checks. What is not there matches everything.
struct Rule {
  std::vector<std::string> proxies;  ///< identifiers; none: to no proxy of the document
  std::vector<std::string>
      domains;  ///< in lower case, without a dot at the end; "*." may begin one
  std::vector<Subnet> subnets;
  std::vector<Ports> ports;
  std::string whyIgnored;  ///< empty if it can be used
};

struct Document {
  std::string identifier;  ///< as given
  std::string expires;     ///< as given
  std::vector<Proxy> proxies;
  std::vector<Rule> rules;
  std::vector<std::string> warnings;  ///< sentences for people
};

/// Either a document or why there is none.
struct Reading {
  std::optional<Document> document;
  std::string error;
};

/// Reads and judges a document.
/// @param host the proxy whose document it is, which its identifier has to name; without it that is
/// a warning
/// @param now seconds since 1970
Reading read(std::string_view text, const std::optional<std::string>& host, std::int64_t now);

/// "10.0.0.0/8".
std::string textOf(const Subnet& subnet);

/// The time that "2026-05-15T06:00:00Z" (RFC 3339) names, in seconds since 1970.
std::optional<std::int64_t> timeOf(std::string_view text);

/// Whether it is a host name, or an IPv4 address: letters, digits, "-", "_" and dots.
bool isHostName(std::string_view text);

}  // namespace client::pvd
