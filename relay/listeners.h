// The sockets on which the relay takes connections.
#pragma once

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace relay {

/// The addresses of the relay without an option and without sockets of systemd.
inline constexpr const char* kUsualAddresses[] = {"127.0.0.1:3128", "[::1]:3128"};

/// Connections that the kernel keeps until they are accepted: bursts of a browser with many tabs.
inline constexpr int kBacklog = 1024;

/// Opens the sockets: those that `addresses` name ("ADDRESS:PORT", "[ADDRESS]:PORT", "unix:PATH"),
/// else those that systemd passes, else kUsualAddresses, of which one may fail: a machine may have
/// no IPv6. A Unix socket's path is made new; an old socket there is removed, any other file is
/// not.
/// @return listening sockets, close-on-exec and non-blocking. At start, one thread.
/// Throws std::system_error if a socket cannot be opened, std::invalid_argument for a bad address.
std::vector<base::UniqueFd> listen(const std::vector<std::string>& addresses);

}  // namespace relay
