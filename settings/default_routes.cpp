#include "settings/default_routes.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/route.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

#include "base/small_file.h"

namespace settings {

namespace {

/// The routing table of a large device has about 200 KiB. For IPv6, the table also lists each
/// address.
constexpr std::size_t kMaxTableBytes = 4U << 20U;

std::vector<std::string_view> words(std::string_view line) {
  std::vector<std::string_view> result;
  std::size_t at = 0;
  while ((at = line.find_first_not_of(" \t", at)) != std::string_view::npos) {
    const std::size_t end = std::min(line.find_first_of(" \t", at), line.size());
    result.push_back(line.substr(at, end - at));
    at = end;
  }
  return result;
}

std::optional<std::uint32_t> number(std::string_view text, int base) {
  std::uint32_t value = 0;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || rest != text.data() + text.size()) return std::nullopt;
  return value;
}

template <typename EachLine>
void forLines(std::string_view text, EachLine eachLine) {
  while (!text.empty()) {
    const auto end = std::min(text.find('\n'), text.size());
    eachLine(words(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

void add(DefaultRoutes& routes, std::string_view interface, std::uint32_t metric,
         std::string_view gateway) {
  const auto [route, isNew] = routes.emplace(interface, DefaultRoute{metric, {}});
  route->second.metric = std::min(route->second.metric, metric);
  route->second.gateways.append(gateway).append(" ");
}

std::string tableText(const char* path) {
  // The files in /proc belong to root, and report a size of 0.
  return base::readFile(path, {.mostBytes = kMaxTableBytes, .owner = base::FileOwner::anybody})
      .text;
}

}  // namespace

// The columns: Iface Destination Gateway Flags RefCnt Use Metric Mask MTU Window IRTT. All numbers
// except the metric are hexadecimal (fib_route_seq_show() of the kernel).
void addIpv4DefaultRoutes(std::string_view text, DefaultRoutes& routes) {
  forLines(text, [&](const std::vector<std::string_view>& fields) {
    if (fields.size() < 8 || fields[1] != "00000000" || fields[7] != "00000000") return;
    const auto flags = number(fields[3], 16);
    const auto metric = number(fields[6], 10);
    if (!flags || !metric || (*flags & RTF_UP) == 0 || (*flags & RTF_REJECT) != 0) return;
    add(routes, fields[0], *metric, fields[2]);
  });
}

// The columns: destination, its length, source, its length, next hop, metric, references, uses,
// flags, interface. All numbers are hexadecimal (rt6_info_route() of the kernel).
void addIpv6DefaultRoutes(std::string_view text, DefaultRoutes& routes) {
  forLines(text, [&](const std::vector<std::string_view>& fields) {
    if (fields.size() < 10 || fields[1] != "00" || fields[3] != "00") return;
    const auto metric = number(fields[5], 16);
    const auto flags = number(fields[8], 16);
    if (!metric || !flags || (*flags & RTF_UP) == 0 || (*flags & RTF_REJECT) != 0) return;
    add(routes, fields[9], *metric, fields[4]);
  });
}

// /proc/net itself does not exist for a service with a restricted /proc.
DefaultRoutes readDefaultRoutes() {
  DefaultRoutes routes;
  addIpv4DefaultRoutes(tableText("/proc/self/net/route"), routes);
  addIpv6DefaultRoutes(tableText("/proc/self/net/ipv6_route"), routes);
  return routes;
}

base::UniqueFd openRouteSocket() {
  base::UniqueFd opened(socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (!opened ||
      bind(opened.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return {};
  }
  return opened;
}

// An overflow (ENOBUFS) also means that something has changed.
void drainRouteSocket(int socket) {
  std::array<char, 4096> buffer;
  for (int messages = 0; messages < 1000; messages++) {
    const ssize_t length = recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length < 0 && errno != ENOBUFS && errno != EINTR) return;
  }
}

}  // namespace settings
