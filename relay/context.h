// The objects that all connections of the relay share. The process has one Context, and only the
// relay's thread uses it.
#pragma once

#include <string>
#include <vector>

#include "relay/authentication.h"
#include "relay/daemon_report.h"
#include "relay/decisions.h"
#include "relay/names.h"
#include "relay/peer.h"
#include "relay/penalties.h"
#include "relay/proxy_connector.h"
#include "relay/questions.h"
#include "relay/relay.h"

namespace relay {

/// Maximum number of proxies whose challenge the relay remembers. When the list is full, the relay
/// clears it.
inline constexpr std::size_t kMaxChallenges = 64;

/// The last challenge of a proxy. With this challenge, the next request to the proxy can send the
/// password at once. If the challenge has no scheme, the proxy has accepted a request without a
/// password.
struct KnownChallenge {
  Challenge challenge;
  std::string clientNonce;
  unsigned count = 0;  ///< how often the nonce was used
};

struct Context {
  Context(asio::io_context& io, const Configured& from, std::vector<Protocol::endpoint> own);

  /// Whether a connection to `address` would arrive at this relay.
  bool isOurs(const sockaddr* address) const;
  /// The user and the password for the proxy `entry` of an answer in mode `mode`. The user is empty
  /// if there are no credentials, or if `peer` may not use them.
  Credentials credentialsFor(const Entry& entry, const std::string& mode, const Peer& peer);

  asio::io_context& loop;
  const Configured& configured;
  const std::vector<Protocol::endpoint> listens;
  const std::string name;  ///< the relay's name in the field Via; a new random name at each start
  Sweeper sweeper;
  Names names;
  Questions questions;
  DaemonReport report;
  Penalties penalties;
  ProxyConnector proxies;
  Peers peers;
  UserList allowed;
  UserList denied;
  UserList withCredentials;
  Decisions decisions;
  Counters counters;
  std::map<std::string, KnownChallenge> challenges;  ///< the key is the name of the proxy's entry
  bool isNoAnswerLogged = false;
};

}  // namespace relay
