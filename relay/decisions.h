// The relay's counters and its last decisions for each user. The relay's pages show them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace relay {

/// Number of decisions that the relay keeps for one user. A page shows all of them.
inline constexpr std::size_t kDecisionsOfUser = 50;
/// Maximum number of users with decisions. Above this number, the relay drops the decisions of the
/// user whose last decision is the oldest.
inline constexpr std::size_t kUsersWithDecisions = 64;

struct Decision {
  std::time_t time = 0;  ///< in seconds since 1970
  uid_t user = 0;
  std::string destination;  ///< "host:port", never a path
  std::string entry;        ///< the entry's name, or the reason why there was none
  bool isGood = true;
};

class Decisions {
 public:
  /// Stores a decision, unless its user is unknown.
  void add(Decision decision);

  /// The last decisions for `user`, the newest first. If `user` is root, the result has the
  /// decisions for all users.
  std::vector<Decision> of(uid_t user) const;

 private:
  std::map<uid_t, std::deque<Decision>> mOfUsers;
};

struct Counters {
  std::uint64_t connections = 0;  ///< accepted connections
  std::uint64_t refused = 0;      ///< connections refused because of a limit, an address or a user
  std::uint64_t tunnels = 0;      ///< tunnels that were opened with CONNECT or SOCKS
  std::uint64_t requests = 0;     ///< answered requests in absolute form
  std::uint64_t failed = 0;       ///< requests for which no entry worked
  std::uint64_t malformed = 0;    ///< requests that were refused with 400
  std::uint64_t open = 0;         ///< connections that are open now
};

}  // namespace relay
