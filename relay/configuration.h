// The keys of relay.conf with their defaults and units, and the parser of this file.
//
// The format is TOML, as in settings.conf. Each key is optional. An unknown key, a value of the
// wrong type and a value out of range are problems. Each problem is reported with its line, and the
// relay does not start: a misspelt `deny-users` must not open the relay to everybody.
//
// The configuration does not change after the start. Only the relay's thread uses it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace relay {

/// Longest relay.conf or credentials file that the relay reads, in bytes. The example file with
/// comments is smaller than 3 KiB.
inline constexpr std::size_t kMaxFileBytes = 64U << 10U;
/// Maximum number of values of one list. The relay compares each connection with each value.
inline constexpr std::size_t kMaxListValues = 256;
/// Highest value that the connection limits accept. Each connection needs two descriptors, and few
/// systems allow a process to open more than twice this number.
inline constexpr unsigned kMostConnections = 65536;
/// Shortest and longest value of a key for a time, such as `head-time`.
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

/// An IP network. The IPv4 network a.b.c.d/n is stored as ::ffff:a.b.c.d with the prefix 96+n.
struct Network {
  unsigned char address[16] = {};
  unsigned prefix = 0;  ///< in bits, 0 to 128
  bool operator==(const Network&) const = default;
};

struct Configuration {
  /// `when-no-answer = "direct" | "refuse"`
  NoAnswer whenNoAnswer = NoAnswer::kDirect;
  /// `allow-ports = [443, "8000-8999"]`: ports that CONNECT and SOCKS may use. Empty: all.
  std::vector<PortRange> allowPorts;
  /// `allow-from = ["192.0.2.0/24"]`: networks whose machines may use the relay, in addition to
  /// loopback. Empty: none.
  std::vector<Network> allowFrom;
  /// `allow-users = ["name", "@group"]`: only these users may use the relay. Empty: all users.
  std::vector<std::string> allowUsers;
  /// `deny-users = ["name", "@group"]`: these users are refused, even if allow-users lists them.
  std::vector<std::string> denyUsers;
  /// `credentials-for = "all"` or `["name", "@group"]`: the users whose requests get credentials
  /// for proxies.
  bool credentialsForAll = true;
  std::vector<std::string> credentialsFor;
  /// `credentials-file = "/path"`: a file with a user and a password for each proxy. Empty: none.
  std::string credentialsFile;
  /// `credentials-hosts = ["proxy.example.org"]`: proxies that get their credentials from the
  /// credentials file even if a script names these proxies. A name without a port matches every
  /// port. The manual proxy always gets its credentials.
  std::vector<std::string> credentialsHosts;
  /// `max-connections = 4096`: maximum for all clients together.
  unsigned maxConnections = 4096;
  /// `max-connections-of-user = 1024`: maximum for each user. All clients whose user is not known
  /// count as one user.
  unsigned maxConnectionsOfUser = 1024;
  /// `head-time = "60s"`: time limit for the whole head of a request. For the first request, the
  /// time starts with the connection. For each later request, it starts with the first byte of the
  /// request.
  std::chrono::seconds headTime{60};
  /// `connect-time = "10s"`: time limit of the attempt with one entry of an answer, until the
  /// tunnel or connection is ready.
  std::chrono::seconds connectTime{10};
  /// `idle-time = "1h"`: longest time without a byte in either direction, in a tunnel or a
  /// transfer.
  std::chrono::seconds idleTime{std::chrono::hours{1}};
  /// `kept-time = "60s"`: how long a connection that stays open after a request may wait for the
  /// next request.
  std::chrono::seconds keptTime{60};
  /// `penalty-time = "5m"`: how long the relay tries a proxy last after the proxy has failed.
  std::chrono::seconds penaltyTime{std::chrono::minutes{5}};
  /// `log-requests = false`: if true, the relay logs a line for each request. If false, it logs
  /// only failed requests.
  bool logRequests = false;

  bool operator==(const Configuration&) const = default;
};

/// A problem of a configuration file.
struct Problem {
  unsigned line = 0;  ///< from 1; 0 if the problem is not in a line, but in the file itself
  std::string text;
  bool operator==(const Problem&) const = default;
};

struct ReadConfiguration {
  Configuration configuration;    ///< the values without a problem
  std::vector<Problem> problems;  ///< if not empty, the configuration must not be used
};

/// The user and the password for one proxy.
struct Credentials {
  std::string user;
  std::string password;
  bool operator==(const Credentials&) const = default;
};

struct ReadCredentials {
  /// Keys are "host" or "host:port", in lower case.
  std::vector<std::pair<std::string, Credentials>> byHost;
  std::vector<Problem> problems;
};

/// Reads the text of relay.conf. Throws only std::bad_alloc.
ReadConfiguration readConfiguration(std::string_view text);

/// Reads the text of a credentials file. The file has a table `["host:port"]` for each proxy, with
/// the keys `user` and `password`. The texts of problems contain no value of the file.
ReadCredentials readCredentials(std::string_view text);

/// Reads "192.0.2.0/24", "2001:db8::/32" or a single address.
/// @return whether `text` is a network; if false, `network` is unchanged
bool readNetwork(std::string_view text, Network& network);

/// @return whether `network` contains `address`, which has 16 bytes as in Network
bool contains(const Network& network, const unsigned char* address);

}  // namespace relay
