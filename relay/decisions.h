// What the relay did, for its pages: counters, and the last decisions of each user.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace relay {

/// Decisions kept of one user: what a page shows.
inline constexpr std::size_t kDecisionsOfUser = 50;
/// Most users with decisions. If there are more, the user with the oldest last decision is dropped.
inline constexpr std::size_t kUsersWithDecisions = 64;

struct Decision {
  std::time_t time = 0;  ///< in seconds since 1970
  uid_t user = 0;
  std::string destination;  ///< "host:port", never a path
  std::string entry;        ///< its name, or why there was none
  bool isGood = true;
};

class Decisions {
 public:
  /// Keeps a decision; one of an unknown user is not kept.
  void add(Decision decision);

  /// The last decisions of `user`, the newest first; of all users for root.
  std::vector<Decision> of(uid_t user) const;

 private:
  std::map<uid_t, std::deque<Decision>> mOfUsers;
};

struct Counters {
  std::uint64_t connections = 0;  ///< accepted
  std::uint64_t refused = 0;      ///< for a limit, an address or a user
  std::uint64_t tunnels = 0;      ///< CONNECT and SOCKS that were connected
  std::uint64_t requests = 0;     ///< in absolute form that were answered
  std::uint64_t failed = 0;       ///< without any way
  std::uint64_t malformed = 0;    ///< refused with 400
  std::uint64_t open = 0;         ///< connections now
};

}  // namespace relay
