// The sockets on which the relay accepts connections.
#pragma once

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace relay {

/// The addresses on which the relay listens without options and without sockets of systemd.
inline constexpr const char* kUsualAddresses[] = {"127.0.0.1:3128", "[::1]:3128"};

/// Connections that the kernel queues until the relay accepts them: enough for a browser that opens
/// many tabs at once.
inline constexpr int kBacklog = 1024;

/// Opens the listening sockets at `addresses` ("ADDRESS:PORT", "[ADDRESS]:PORT", "unix:PATH"). If
/// `addresses` is empty, the function uses the sockets that systemd passes. If systemd passes no
/// socket, it uses kUsualAddresses; one of these may fail, because a machine may have no IPv6. If
/// the path of a Unix socket has an old socket, the function replaces it; any other file at this
/// path is an error. Call this function at the start, while the process has one thread.
/// @return listening sockets, close-on-exec and non-blocking
/// Throws std::system_error if a socket cannot be opened, std::invalid_argument for a bad address.
std::vector<base::UniqueFd> listen(const std::vector<std::string>& addresses);

}  // namespace relay
