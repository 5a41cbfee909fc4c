// Finds the interfaces that have a default route, and notices when the routes change.
//
// The kernel lists its routes over a netlink socket. Its text files in /proc are not enough: they
// do not name the table of an IPv6 route, and they show only one next hop of an IPv4 route. A
// second netlink socket reports that something has changed.
#pragma once

#include <optional>

#include "base/unique_fd.h"
#include "settings/network_set.h"

namespace settings {

/// The default routes in the main table of the process's network namespace, without next hops that
/// the kernel does not use. If an interface has several default routes, the lowest metric counts.
/// Returns nothing if the kernel does not list its routes. Each message of the list has a time
/// limit of 1 s; the kernel needs microseconds.
std::optional<DefaultRoutes> readDefaultRoutes();

/// A socket that becomes readable when a route or a link changes. Empty if the kernel refuses the
/// socket.
base::UniqueFd openRouteSocket();
/// Reads the messages that wait on the socket.
/// @return whether the default routes may have changed. Changes of other routes do not count:
/// reading a list of 60,000 routes takes a tenth of a second.
bool drainRouteSocket(int socket);

}  // namespace settings
