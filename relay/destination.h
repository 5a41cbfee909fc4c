// The destination of a request. Pure functions, for any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace relay {

/// Longest host name, in characters: the limit of DNS.
inline constexpr std::size_t kMaxHostName = 253;

struct Destination {
  std::string host;  ///< a name, an IPv4 address, or an IPv6 address without brackets
  std::uint16_t port = 0;
  bool operator==(const Destination&) const = default;

  bool isIpv6() const { return host.find(':') != std::string::npos; }
  /// "host:port". An IPv6 address has brackets.
  std::string text() const;
  /// The value of a Host field: "host" if the port is `usual`, else "host:port".
  std::string hostField(std::uint16_t usual) const;
};

/// Reads "host:port" or "[address]:port". A missing port becomes `usual`; if `usual` is 0, the port
/// is required. The host must be an address, or a name of letters, digits and "-._~".
std::optional<Destination> readAuthority(std::string_view text, std::uint16_t usual);

/// An absolute http URL, which is the target of a request to a proxy.
struct HttpTarget {
  Destination destination;
  std::string_view path;  ///< begins with "/" or "?"; may be empty
};

/// Reads "http://host[:port][/path][?query]". A user name or a fragment is an error, because RFC
/// 9110 forbids both in a request.
std::optional<HttpTarget> readHttpTarget(std::string_view target);

}  // namespace relay
