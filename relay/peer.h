// The user and the address of a client, and the check whether this client may use the relay.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "relay/configuration.h"

namespace relay {

struct Peer {
  uid_t user = static_cast<uid_t>(-1);  ///< the owner of the client's socket; -1: not known
  bool isLocal = true;                  ///< the client is on loopback or uses a Unix socket
  bool isGone = false;                  ///< the client has closed the connection
  bool isAllowed = true;                ///< the address is loopback or in allow-from

  bool isKnown() const { return user != static_cast<uid_t>(-1); }
};

/// Finds the owner of the other end of an accepted connection. For TCP on this machine, the
/// kernel's socket diagnosis (NETLINK_SOCK_DIAG) reports the owner. For a Unix socket, SO_PEERCRED
/// reports it.
class Peers {
 public:
  explicit Peers(std::vector<Network> allowed) : mAllowed(std::move(allowed)) {}
  Peer of(int fd);

 private:
  void findOwner(const sockaddr_storage& there, const sockaddr_storage& here, Peer& peer);

  const std::vector<Network> mAllowed;
  base::UniqueFd mDiagnosis;
};

/// The users and groups of one list in the configuration, such as `allow-users`. The constructor
/// looks up their names. A user is a member of a group if the group database lists the user or the
/// group is the user's primary group.
class UserList {
 public:
  explicit UserList(const std::vector<std::string>& names);
  bool has(uid_t user);
  bool isEmpty() const { return mIsEmpty; }

 private:
  bool mIsEmpty;
  std::set<uid_t> mUsers;
  std::set<gid_t> mGroups;
  std::map<uid_t, bool> mKnown;  ///< users whose primary group was looked up
};

/// The elements of `names` ("user", "@group") for which there is no user or group.
std::vector<std::string> unknownUsers(const std::vector<std::string>& names);

/// The 16 bytes of an address as in Network. @return false if the family is not an IP family
bool addressBytes(const sockaddr* address, unsigned char* bytes);

/// Whether the address is in 127.0.0.0/8 or is ::1. 0.0.0.0/8 and :: also count, because the kernel
/// connects 0.0.0.0 and :: to loopback.
bool isLoopback(const sockaddr* address);

/// Whether the address is a loopback, link-local or interface address of this machine. Also true if
/// this cannot be checked.
bool isOwnOrLinkLocal(const sockaddr* address);

}  // namespace relay
