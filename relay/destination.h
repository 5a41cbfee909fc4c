// The destination of a request. Pure functions, for any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace relay {

/// Longest name of a host, in characters, as in the name system.
inline constexpr std::size_t kMaxHostName = 253;

struct Destination {
  std::string host;  ///< a name, an IPv4 address, or an IPv6 address without brackets
  std::uint16_t port = 0;
  bool operator==(const Destination&) const = default;

  bool isIpv6() const { return host.find(':') != std::string::npos; }
  /// "host:port", with brackets around an IPv6 address.
  std::string text() const;
  /// "host" or "host:port" if the port is not `usual`, as a Host field has it.
  std::string hostField(std::uint16_t usual) const;
};

/// Reads "host:port" or "[address]:port". Without a port it is `usual`; 0 means that one must stand
/// there. The host is a name of letters, digits and "-._~", or an address; nothing else is
/// accepted.
std::optional<Destination> readAuthority(std::string_view text, std::uint16_t usual);

/// An absolute http URL as a request's target has it.
struct HttpTarget {
  Destination destination;
  std::string_view path;  ///< from "/" or "?" on; may be empty
};

/// Reads "http://host[:port][/path][?query]". User names and fragments are refused: they have no
/// place in a request.
std::optional<HttpTarget> readHttpTarget(std::string_view target);

}  // namespace relay
