// A connection to a proxy or a server, to see whether it can be reached.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "base/unique_fd.h"

namespace client {

struct Connection {
  base::UniqueFd socket;  ///< non-blocking; not set if there is a problem
  std::string problem;    ///< in a few words; empty if the connection is made
};

/// Connects to `host`, which is a name or an address, with or without brackets. The addresses of a
/// name are tried one after the other; each gets an equal part of the time that is left. `limit`
/// includes the lookup of the name.
Connection connectTo(const std::string& host, std::uint16_t port, std::chrono::milliseconds limit);

/// Sends `request`. @return the first line of the answer, without the line end, at most 1 KiB. If
/// no line comes within `limit`, the text is empty and `problem` is set.
std::string firstLine(int socket, const std::string& request, std::chrono::milliseconds limit,
                      std::string& problem);

}  // namespace client
