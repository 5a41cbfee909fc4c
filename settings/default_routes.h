// Which interfaces have a default route, and when that changes.
//
// The routes are read from two text files of the kernel in /proc, so no parser of netlink messages
// is needed. A netlink socket only reports that something has changed.
#pragma once

#include <string_view>

#include "base/unique_fd.h"
#include "settings/network_set.h"

namespace settings {

/// Adds the default routes of /proc/net/route (IPv4) to `routes`. If an interface has two default
/// routes, the lower metric counts. Lines that cannot be parsed are skipped.
void addIpv4DefaultRoutes(std::string_view text, DefaultRoutes& routes);
/// The same for /proc/net/ipv6_route.
void addIpv6DefaultRoutes(std::string_view text, DefaultRoutes& routes);

/// The default routes of the process's network namespace; none if they cannot be read.
DefaultRoutes readDefaultRoutes();

/// A socket that becomes readable when a route or a link changes. The content of its messages is
/// not needed: drainRouteSocket() discards it. Empty if the kernel refuses the socket.
base::UniqueFd openRouteSocket();
void drainRouteSocket(int socket);

}  // namespace settings
