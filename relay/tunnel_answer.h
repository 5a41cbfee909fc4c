// CONNECT at an HTTP proxy that gets no password.
//
// libcurl, which has all other handshakes with proxies, reads the answer to CONNECT byte by byte:
// some eighty system calls for each tunnel, half of its cost.
#pragma once

#include <string>
#include <string_view>

#include "relay/destination.h"
#include "relay/proxy_connector.h"

namespace relay {

/// The end of a head, and what it says about the tunnel.
struct TunnelAnswer {
  std::size_t length = 0;  ///< of the head in bytes; 0 if its end has not come yet
  unsigned status = 0;     ///< 0 if the head is not one of HTTP/1
};

/// Reads the head at the beginning of `bytes`. Nothing of it goes on to a client, so lines may also
/// end with LF alone. Any thread.
TunnelAnswer readTunnelAnswer(std::string_view bytes);

/// Asks the proxy at the other end of `stream` for a tunnel, and takes the stream if it is there.
/// @param via the relay's own name, for the field Via
/// @param end when to give up; about one second late at most
Task<ThroughProxy> askForTunnel(Sweeper& sweeper, Stream& stream, const Destination& destination,
                                const std::string& via, Clock::time_point end);

}  // namespace relay
