// The user and the address of a client, and the check whether they may use the relay.
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
  bool isLocal = true;                  ///< on loopback, or a Unix socket
  bool isAllowed = true;                ///< by address: loopback, or in allow-from

  bool isKnown() const { return user != static_cast<uid_t>(-1); }
};

/// Finds the owner of the other end of an accepted connection. The kernel's socket diagnosis
/// (NETLINK_SOCK_DIAG) knows the owner of a TCP socket on this machine, SO_PEERCRED the owner of a
/// Unix socket.
class Peers {
 public:
  explicit Peers(std::vector<Network> allowed) : mAllowed(std::move(allowed)) {}
  Peer of(int fd);

 private:
  uid_t ownerOf(const sockaddr_storage& peer, const sockaddr_storage& own);

  const std::vector<Network> mAllowed;
  base::UniqueFd mDiagnosis;
};

/// Users and groups of the configuration. The constructor looks the names up. The members of a
/// group are the users in the group database and the users with this primary group.
class UserList {
 public:
  explicit UserList(const std::vector<std::string>& names);
  bool has(uid_t user);
  bool isEmpty() const { return mIsEmpty; }

 private:
  bool mIsEmpty;
  std::set<uid_t> mUsers;
  std::set<gid_t> mGroups;
  std::map<uid_t, bool> mKnown;  ///< whose first group was looked up
};

/// The 16 bytes that Network has for an address. @return false for another family
bool addressBytes(const sockaddr* address, unsigned char* bytes);

/// Whether the address is of 127.0.0.0/8, ::1, or the unspecified one, which the kernel takes for
/// it.
bool isLoopback(const sockaddr* address);

/// Whether the address is loopback, link-local, or one of this machine's interfaces.
bool isOwnOrLinkLocal(const sockaddr* address);

}  // namespace relay
