// A TCP connection to the first of a name's addresses that answers (RFC 8305, "happy eyeballs").
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
  std::string problem;  ///< without a socket: the last error, for people
};

/// Connects to one of `addresses`, which is not empty, within `limit`.
Task<Connected> connectToOne(asio::io_context& loop, std::vector<Protocol::endpoint> addresses,
                             Clock::duration limit);

}  // namespace relay
