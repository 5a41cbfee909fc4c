#include "settings/default_routes.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace settings {

namespace {

/// The kernel's messages have up to 8 KiB, or more if the reader's buffer is larger.
constexpr std::size_t kMessageBytes = 16U << 10U;
/// The kernel answers immediately. The limit is for a kernel that does not answer.
constexpr timeval kRoutesLimit{1, 0};
/// Maximum number of requests for a list that changes while the kernel writes it. After the last
/// request, the kernel's report of the change causes the next reading.
constexpr int kMaxLists = 3;
/// Maximum number of packets that are read in one turn of the event loop.
constexpr int kMaxPackets = 1000;

enum class List { kWhole, kChanged, kFailed };

/// The structure at the beginning of `bytes`. If there are too few bytes, the rest of the structure
/// is 0.
template <typename Structure>
Structure headOf(std::string_view bytes) {
  Structure head{};
  std::memcpy(&head, bytes.data(), std::min(sizeof head, bytes.size()));
  return head;
}

/// Removes the first entry from a list and returns it. Each entry begins with its length, and is
/// padded to four bytes. Returns an empty entry at the end of the list, or if the length is
/// impossible.
std::string_view takeEntry(std::string_view& list, std::size_t length, std::size_t leastLength) {
  if (length < leastLength || length > list.size()) return {};
  const auto entry = list.substr(0, length);
  list.remove_prefix(std::min(NLMSG_ALIGN(length), list.size()));
  return entry;
}

template <typename EachAttribute>
void forAttributes(std::string_view list, EachAttribute eachAttribute) {
  while (true) {
    const auto head = headOf<rtattr>(list);
    const auto entry = takeEntry(list, head.rta_len, sizeof head);
    if (entry.empty()) return;
    eachAttribute(head.rta_type, entry.substr(sizeof head));
  }
}

/// One next hop of a route.
struct Hop {
  int interface = 0;
  unsigned flags = 0;
  std::string_view gateway;  ///< the gateway's address as bytes

  void take(unsigned attribute, std::string_view value) {
    if (attribute == RTA_OIF) interface = headOf<int>(value);
    if (attribute == RTA_GATEWAY || attribute == RTA_VIA) gateway = value;
  }
};

// Adds a next hop to the routes of its interface, unless the kernel has marked the next hop as
// dead. The kernel marks a next hop as dead if its link is down. If a link has no carrier, the next
// hop is marked only if the kernel is configured to avoid such links.
void add(DefaultRoutes& routes, const Hop& hop, std::uint32_t metric) {
  std::array<char, IF_NAMESIZE> name{};
  if ((hop.flags & RTNH_F_DEAD) != 0) return;
  if (if_indextoname(static_cast<unsigned>(hop.interface), name.data()) == nullptr)
    return;  // the interface has just disappeared
  const auto [route, isNew] = routes.emplace(name.data(), DefaultRoute{metric, {}});
  route->second.metric = std::min(route->second.metric, metric);
  route->second.gateways.append(hop.gateway).append(" ");
}

/// @param list value of RTA_MULTIPATH: next hops, each with attributes of its own
void addHops(DefaultRoutes& routes, std::string_view list, std::uint32_t metric) {
  while (true) {
    const auto head = headOf<rtnexthop>(list);
    const auto entry = takeEntry(list, head.rtnh_len, sizeof head);
    if (entry.empty()) return;
    Hop hop{head.rtnh_ifindex, head.rtnh_flags, {}};
    forAttributes(entry.substr(sizeof head),
                  [&](unsigned attribute, std::string_view value) { hop.take(attribute, value); });
    add(routes, hop, metric);
  }
}

void addRoute(DefaultRoutes& routes, std::string_view message) {
  const auto route = headOf<rtmsg>(message);
  const bool isDefault = (route.rtm_family == AF_INET || route.rtm_family == AF_INET6) &&
                         route.rtm_dst_len == 0 && route.rtm_src_len == 0 &&
                         route.rtm_type == RTN_UNICAST && (route.rtm_flags & RTM_F_CLONED) == 0;
  if (!isDefault || message.size() < sizeof route) return;
  Hop hop{0, route.rtm_flags, {}};
  std::uint32_t table = route.rtm_table;
  std::uint32_t metric = 0;
  std::string_view hops;
  forAttributes(message.substr(sizeof route), [&](unsigned attribute, std::string_view value) {
    hop.take(attribute, value);
    if (attribute == RTA_TABLE) table = headOf<std::uint32_t>(value);
    if (attribute == RTA_PRIORITY) metric = headOf<std::uint32_t>(value);
    if (attribute == RTA_MULTIPATH) hops = value;
  });
  if (table != RT_TABLE_MAIN) return;
  if (hops.empty()) {
    add(routes, hop, metric);
  } else {
    addHops(routes, hops, metric);
  }
}

bool request(int socket) {
  struct {
    nlmsghdr header;
    rtmsg route;
  } all{};
  all.header.nlmsg_len = sizeof all;
  all.header.nlmsg_type = RTM_GETROUTE;
  all.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  return send(socket, &all, sizeof all, 0) == sizeof all;
}

List readList(int socket, DefaultRoutes& routes) {
  std::array<char, kMessageBytes> buffer;
  bool isChanged = false;
  while (true) {
    const ssize_t length = recv(socket, buffer.data(), buffer.size(), MSG_TRUNC);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0 || static_cast<std::size_t>(length) > buffer.size()) return List::kFailed;
    std::string_view messages(buffer.data(), static_cast<std::size_t>(length));
    while (true) {
      const auto head = headOf<nlmsghdr>(messages);
      const auto message = takeEntry(messages, head.nlmsg_len, sizeof head);
      if (message.empty()) break;
      isChanged = isChanged || (head.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
      if (head.nlmsg_type == NLMSG_ERROR) return List::kFailed;
      if (head.nlmsg_type == NLMSG_DONE) return isChanged ? List::kChanged : List::kWhole;
      if (head.nlmsg_type == RTM_NEWROUTE) addRoute(routes, message.substr(sizeof head));
    }
  }
}

/// @param messages one packet of the kernel
bool concernsDefaultRoutes(std::string_view messages) {
  while (true) {
    const auto head = headOf<nlmsghdr>(messages);
    const auto message = takeEntry(messages, head.nlmsg_len, sizeof head);
    if (message.empty()) return false;
    const bool isRoute = head.nlmsg_type == RTM_NEWROUTE || head.nlmsg_type == RTM_DELROUTE;
    if (!isRoute || headOf<rtmsg>(message.substr(sizeof head)).rtm_dst_len == 0) return true;
  }
}

base::UniqueFd openSocket(int type, unsigned groups) {
  base::UniqueFd opened(socket(AF_NETLINK, type | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (!opened ||
      bind(opened.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  return opened;
}

}  // namespace

std::optional<DefaultRoutes> readDefaultRoutes() {
  const base::UniqueFd socket = openSocket(SOCK_RAW, 0);
  if (!socket) return std::nullopt;
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &kRoutesLimit, sizeof kRoutesLimit);
  DefaultRoutes routes;
  for (int lists = 0; lists < kMaxLists; lists++) {
    routes.clear();
    if (!request(socket.get())) return std::nullopt;
    const List list = readList(socket.get(), routes);
    if (list == List::kFailed) return std::nullopt;
    if (list == List::kWhole) break;
  }
  return routes;
}

base::UniqueFd openRouteSocket() {
  return openSocket(SOCK_RAW | SOCK_NONBLOCK, RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE);
}

bool drainRouteSocket(int socket) {
  std::array<char, kMessageBytes> buffer;
  bool isRelevant = false;
  for (int packets = 0; packets < kMaxPackets; packets++) {
    const ssize_t length = recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && errno == EINTR) continue;
    if (length < 0 && errno != ENOBUFS) return isRelevant;
    // After an overflow (ENOBUFS) or in a packet that is too long, any message may be lost.
    const bool isLost = length < 0 || static_cast<std::size_t>(length) > buffer.size();
    isRelevant = isRelevant || isLost ||
                 concernsDefaultRoutes({buffer.data(), static_cast<std::size_t>(length)});
  }
  return true;
}

}  // namespace settings
