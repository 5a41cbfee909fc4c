// The keys of relay.conf with their defaults and units, and the parser of this file.
//
// The format is TOML, as in settings.conf. Each key is optional. An unknown key, a value of the
// wrong type and a value out of range are problems, which are reported with their lines. The relay
// then does not start: a misspelt `deny-users` must not open the relay to everybody.
//
// The configuration does not change after the start. Only the relay's one thread uses it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace relay {

/// Longest relay.conf or credentials file that is read, in bytes. The commented one has 5 KiB.
inline constexpr std::size_t kMaxFileBytes = 64U << 10U;
/// Most values in one list. Each connection is compared with each value.
inline constexpr std::size_t kMaxListValues = 256;
/// The highest value of the limits of connections. Each connection needs two descriptors, and few
/// processes may have more than twice this number.
inline constexpr unsigned kMostConnections = 65536;
/// The shortest and the longest time that can be configured.
inline constexpr std::chrono::seconds kShortestTime{1};
inline constexpr std::chrono::seconds kLongestTime{std::chrono::hours{24}};

/// What the relay does with a request if the daemon has no answer.
enum class NoAnswer : std::uint8_t { kDirect, kRefuse };

/// A range of ports, both ends included.
struct PortRange {
  std::uint16_t first = 0;
  std::uint16_t last = 0;
  bool operator==(const PortRange&) const = default;
};

/// An IP network. IPv4 networks are kept as ::ffff:a.b.c.d/96+n.
struct Network {
  unsigned char address[16] = {};
  unsigned prefix = 0;  ///< in bits, 0 to 128
  bool operator==(const Network&) const = default;
};

struct Configuration {
  /// `when-no-answer = "direct" | "refuse"`
  NoAnswer whenNoAnswer = NoAnswer::kDirect;
  /// `allow-ports = [443, "8000-8999"]`: ports of CONNECT and SOCKS. Empty: all.
  std::vector<PortRange> allowPorts;
  /// `allow-from = ["192.0.2.0/24"]`: networks of allowed clients besides loopback. Empty: none.
  std::vector<Network> allowFrom;
  /// `allow-users = ["name", "@group"]`: if set, others are refused. Empty: all.
  std::vector<std::string> allowUsers;
  /// `deny-users = ["name", "@group"]`: refused, also if allow-users has them.
  std::vector<std::string> denyUsers;
  /// `credentials-for = "all" | ["name", "@group"]`: whose requests carry credentials.
  bool credentialsForAll = true;
  std::vector<std::string> credentialsFor;
  /// `credentials-file = "/path"`: user and password by the proxy's host. Empty: none.
  std::string credentialsFile;
  /// `credentials-hosts = ["proxy.example.org"]`: proxies of a script that get those credentials.
  /// Without a port each port of the host counts. The manual proxy always gets them.
  std::vector<std::string> credentialsHosts;
  /// `max-connections = 4096`: of all clients.
  unsigned maxConnections = 4096;
  /// `max-connections-of-user = 1024`: of one user. Clients whose user is not known count together.
  unsigned maxConnectionsOfUser = 1024;
  /// `head-time = "60s"`: for the whole head of a request. It begins with the connection, and on a
  /// kept connection with the first byte of the next request.
  std::chrono::seconds headTime{60};
  /// `connect-time = "10s"`: for one entry of an answer, until its tunnel or connection is ready.
  std::chrono::seconds connectTime{10};
  /// `idle-time = "1h"`: of a tunnel or a transfer without a byte in either direction.
  std::chrono::seconds idleTime{std::chrono::hours{1}};
  /// `kept-time = "60s"`: how long a connection may wait for its next request.
  std::chrono::seconds keptTime{60};
  /// `penalty-time = "5m"`: how long a proxy that failed is tried last.
  std::chrono::seconds penaltyTime{std::chrono::minutes{5}};
  /// `log-requests = false`: true logs a line for each request, not only for failed requests.
  bool logRequests = false;

  bool operator==(const Configuration&) const = default;
};

/// A problem of a file.
struct Problem {
  unsigned line = 0;  ///< from 1; 0 if the problem is the file itself
  std::string text;
  bool operator==(const Problem&) const = default;
};

struct ReadConfiguration {
  Configuration configuration;    ///< the values without a problem
  std::vector<Problem> problems;  ///< if not empty, the configuration must not be used
};

/// User and password for one proxy.
struct Credentials {
  std::string user;
  std::string password;
  bool operator==(const Credentials&) const = default;
};

struct ReadCredentials {
  /// By "host" or "host:port", in lower case.
  std::vector<std::pair<std::string, Credentials>> byHost;
  std::vector<Problem> problems;
};

/// Reads the text of relay.conf. Throws nothing but std::bad_alloc.
ReadConfiguration readConfiguration(std::string_view text);

/// Reads the text of a credentials file: a table for each proxy, `["host:port"]`, with the keys
/// `user` and `password`. Problems hold no value of the file.
ReadCredentials readCredentials(std::string_view text);

/// Reads "192.0.2.0/24", "2001:db8::/32" or a single address.
/// @return whether `text` is a network; `network` is set only then
bool readNetwork(std::string_view text, Network& network);

/// Whether `address`, 16 bytes as in Network, is in `network`.
bool contains(const Network& network, const unsigned char* address);

}  // namespace relay
