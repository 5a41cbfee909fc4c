// What all connections of the relay share. One for the process, on the relay's one thread.
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

/// Most proxies whose challenge is remembered; the list starts again when it is full.
inline constexpr std::size_t kMaxChallenges = 64;

/// What a proxy asked for last, so that the next request is sent with its password at once. Without
/// a scheme: the proxy took a request without a password.
struct KnownChallenge {
  Challenge challenge;
  std::string clientNonce;
  unsigned count = 0;  ///< how often the nonce was used
};

struct Context {
  Context(asio::io_context& io, const Configured& from, std::vector<Protocol::endpoint> own);

  /// Whether a connection to `address` would end at this relay.
  bool isOurs(const sockaddr* address) const;
  /// User and password for `entry`, an entry of an answer in the mode `mode`, as `peer` may use
  /// them; without a user if there are none.
  Credentials credentialsFor(const Entry& entry, const std::string& mode, const Peer& peer);

  asio::io_context& loop;
  const Configured& configured;
  const std::vector<Protocol::endpoint> listens;
  const std::string name;  ///< in Via: another one at each start
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
  std::map<std::string, KnownChallenge> challenges;  ///< by the entry's name
  bool isNoAnswerLogged = false;
};

}  // namespace relay
