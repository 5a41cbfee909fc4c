#include "relay/peer.h"

#include <grp.h>
#include <ifaddrs.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <pwd.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace relay {

namespace {

struct DiagnosisRequest {
  nlmsghdr header;
  inet_diag_req_v2 request;
};

void setAddress(const sockaddr_storage& address, __be32* bytes, __be16& port) {
  if (address.ss_family == AF_INET) {
    const auto& four = reinterpret_cast<const sockaddr_in&>(address);
    std::memcpy(bytes, &four.sin_addr, sizeof(four.sin_addr));
    port = four.sin_port;
    return;
  }
  const auto& six = reinterpret_cast<const sockaddr_in6&>(address);
  std::memcpy(bytes, &six.sin6_addr, sizeof(six.sin6_addr));
  port = six.sin6_port;
}

bool inNetwork(const char* text, const unsigned char* bytes) {
  Network network;
  return readNetwork(text, network) && contains(network, bytes);
}

}  // namespace

bool addressBytes(const sockaddr* address, unsigned char* bytes) {
  if (address->sa_family == AF_INET) {
    std::memset(bytes, 0, 10);
    bytes[10] = bytes[11] = 0xFF;
    std::memcpy(bytes + 12, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, 4);
    return true;
  }
  if (address->sa_family != AF_INET6) return false;
  std::memcpy(bytes, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, 16);
  return true;
}

bool isLoopback(const sockaddr* address) {
  unsigned char bytes[16];
  if (!addressBytes(address, bytes)) return false;
  return inNetwork("127.0.0.0/8", bytes) || inNetwork("::1", bytes) ||
         inNetwork("0.0.0.0/8", bytes) || inNetwork("::", bytes);
}

bool isOwnOrLinkLocal(const sockaddr* address) {
  unsigned char bytes[16];
  if (!addressBytes(address, bytes) || isLoopback(address)) return true;
  if (inNetwork("64:ff9b::/96", bytes)) {
    // For an address of this network, a translator (NAT64) connects to the IPv4 address in its last
    // 32 bits (RFC 6052).
    std::memset(bytes, 0, 10);
    bytes[10] = bytes[11] = 0xFF;
    if (inNetwork("127.0.0.0/8", bytes) || inNetwork("0.0.0.0/8", bytes)) return true;
  }
  if (inNetwork("169.254.0.0/16", bytes) || inNetwork("fe80::/10", bytes)) return true;
  ifaddrs* found = nullptr;
  // Without the list of interfaces, any address could belong to this machine.
  if (getifaddrs(&found) != 0) return true;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> list(found, freeifaddrs);
  for (const auto* one = found; one != nullptr; one = one->ifa_next) {
    unsigned char own[16];
    if (one->ifa_addr == nullptr || !addressBytes(one->ifa_addr, own)) continue;
    if (std::memcmp(own, bytes, sizeof(own)) == 0) return true;
  }
  return false;
}

Peer Peers::of(int fd) {
  Peer peer;
  sockaddr_storage there{};
  sockaddr_storage here{};
  socklen_t thereLength = sizeof(there);
  socklen_t hereLength = sizeof(here);
  const bool isNamed = getpeername(fd, reinterpret_cast<sockaddr*>(&there), &thereLength) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr*>(&here), &hereLength) == 0;
  if (isNamed && here.ss_family == AF_UNIX) {
    ucred credentials{};
    socklen_t length = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0) {
      peer.user = credentials.uid;
    }
    return peer;
  }
  const auto* const address = reinterpret_cast<const sockaddr*>(&there);
  unsigned char bytes[16];
  if (!isNamed || !addressBytes(address, bytes)) {
    peer.isLocal = peer.isAllowed = false;
    return peer;
  }
  peer.isLocal = isLoopback(address);
  if (peer.isLocal) {
    findOwner(there, here, peer);
    return peer;
  }
  peer.isAllowed = std::any_of(mAllowed.begin(), mAllowed.end(),
                               [&](const Network& network) { return contains(network, bytes); });
  return peer;
}

void Peers::findOwner(const sockaddr_storage& there, const sockaddr_storage& here, Peer& peer) {
  if (!mDiagnosis) {
    mDiagnosis.reset(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  }
  DiagnosisRequest request{};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.request.sdiag_family = static_cast<__u8>(there.ss_family);
  request.request.sdiag_protocol = IPPROTO_TCP;
  request.request.idiag_states = ~0U;
  setAddress(there, request.request.id.idiag_src, request.request.id.idiag_sport);
  setAddress(here, request.request.id.idiag_dst, request.request.id.idiag_dport);
  request.request.id.idiag_cookie[0] = request.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  if (send(mDiagnosis.get(), &request, sizeof(request), 0) < 0) return;
  alignas(nlmsghdr) char reply[4096];
  // The kernel writes the reply during send().
  const auto got = recv(mDiagnosis.get(), reply, sizeof(reply), MSG_DONTWAIT);
  const auto* const header = reinterpret_cast<const nlmsghdr*>(reply);
  if (got < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(inet_diag_msg)))) return;
  if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) return;
  const auto* const found = reinterpret_cast<const inet_diag_msg*>(reply + NLMSG_LENGTH(0));
  // If a program has closed its socket, the socket has no inode. The kernel then reports root as
  // its owner.
  peer.isGone = found->idiag_inode == 0;
  if (!peer.isGone) peer.user = found->idiag_uid;
}

UserList::UserList(const std::vector<std::string>& names) : mIsEmpty(names.empty()) {
  for (const auto& name : names) {
    if (name.front() != '@') {
      if (const auto* const user = getpwnam(name.c_str())) mUsers.insert(user->pw_uid);
      continue;
    }
    const auto* const group = getgrnam(name.c_str() + 1);
    if (group == nullptr) continue;
    mGroups.insert(group->gr_gid);
    for (char** member = group->gr_mem; *member != nullptr; member++) {
      if (const auto* const user = getpwnam(*member)) mUsers.insert(user->pw_uid);
    }
  }
}

std::vector<std::string> unknownUsers(const std::vector<std::string>& names) {
  std::vector<std::string> unknown;
  for (const auto& name : names) {
    const bool isKnown = name.front() == '@' ? getgrnam(name.c_str() + 1) != nullptr
                                             : getpwnam(name.c_str()) != nullptr;
    if (!isKnown) unknown.push_back(name);
  }
  return unknown;
}

bool UserList::has(uid_t user) {
  if (mUsers.contains(user)) return true;
  if (mGroups.empty()) return false;
  const auto known = mKnown.find(user);
  if (known != mKnown.end()) return known->second;
  const auto* const entry = getpwuid(user);
  const bool isMember = entry != nullptr && mGroups.contains(entry->pw_gid);
  mKnown.emplace(user, isMember);
  return isMember;
}

}  // namespace relay
