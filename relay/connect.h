// Connects by TCP to one of the addresses of a name: the address that answers first (RFC 8305,
// "happy eyeballs").
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "relay/loop.h"

namespace relay {

/// Delay before the next address is tried in parallel (RFC 8305, section 5).
inline constexpr std::chrono::milliseconds kNextAddressAfter{250};

struct Connected {
  std::optional<Socket> socket;
  std::string problem;  ///< if there is no socket: the last error, for people
};

/// Connects to one of `addresses` within `limit`. `addresses` must not be empty.
Task<Connected> connectToOne(asio::io_context& loop, std::vector<Protocol::endpoint> addresses,
                             Clock::duration limit);

}  // namespace relay
