// Name lookups by the system's resolver. Each lookup has its own thread, so a slow name does not
// delay other names. When a thread is free, the users with waiting lookups take turns (round
// robin), and no user gets all threads. So the slow names of one user do not stop the lookups of
// other users.
#pragma once

#include <sys/types.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "relay/loop.h"

namespace relay {

/// Maximum number of lookups at a time, each on its own thread. One page in a browser may need
/// fifty hosts. If the name server does not answer, a lookup takes about ten seconds.
inline constexpr std::size_t kMaxLookups = 64;
/// Maximum number of lookups of one user at a time.
inline constexpr std::size_t kMaxLookupsOfUser = 48;
/// Maximum number of lookups of one user that wait for a thread. Further lookups fail at once.
inline constexpr std::size_t kMaxWaitingLookups = 1024;
/// Maximum number of addresses of one name that the relay tries.
inline constexpr std::size_t kMaxAddresses = 16;

struct Addresses {
  std::vector<Protocol::endpoint>
      list;              ///< in the order in which they are tried (RFC 8305), at most kMaxAddresses
  std::string problem;   ///< why the list is empty
  bool wasAsked = true;  ///< false: the lookup did not run, so `problem` is not about the name
};

class Names {
 public:
  explicit Names(asio::io_context& loop) : mLoop(loop) {}

  /// Looks up `host` for `user`. If `host` is an address, no lookup is needed. Equal lookups share
  /// one result.
  Task<Addresses> lookUp(std::string host, std::uint16_t port, Clock::duration limit, uid_t user);

 private:
  struct Lookup {
    std::string host;
    uid_t user = 0;  ///< the user whose turn started the lookup
    bool isStarted = false;
    bool isDone = false;
    Addresses addresses;  ///< with port 0
    std::vector<Event*> waiting;
  };
  /// The lookups of one user. A waiting lookup may already have been started from the queue of
  /// another user.
  struct OfUser {
    std::deque<std::shared_ptr<Lookup>> waiting;  ///< the oldest first
    std::size_t running = 0;
  };
  using LookupPtr = std::shared_ptr<Lookup>;

  Task<Addresses> wait(const LookupPtr& lookup, std::uint16_t port, Clock::duration limit);
  void startMore();
  LookupPtr next();
  void start(const LookupPtr& lookup);
  void end(const LookupPtr& lookup, Addresses addresses);

  asio::io_context& mLoop;  ///< never destroyed, because a thread may end at any time
  std::map<std::string, LookupPtr, std::less<>> mLookups;
  std::map<uid_t, OfUser> mOfUsers;
  uid_t mLastUser = 0;
  std::size_t mRunning = 0;
};

/// Reads an address in `text`. @return whether `text` is an address
bool readAddress(const std::string& text, std::uint16_t port, Protocol::endpoint& endpoint);

/// The address as a text, without its port: "192.0.2.1" or "2001:db8::1".
std::string addressText(const Protocol::endpoint& endpoint);

}  // namespace relay
