// The handshake with CONNECT for an HTTP proxy that gets no password.
//
// libcurl does all other handshakes with proxies. But libcurl reads the answer to CONNECT byte by
// byte. This takes about eighty system calls for each tunnel, which are half of the tunnel's cost.
#pragma once

#include <string>
#include <string_view>

#include "relay/destination.h"
#include "relay/proxy_connector.h"

namespace relay {

/// The length and the status of the head of a proxy's answer to CONNECT.
struct TunnelAnswer {
  std::size_t length = 0;  ///< length of the head in bytes; 0 if its end has not arrived yet
  unsigned status = 0;     ///< 0 if the head is not HTTP/1
};

/// Reads the head at the start of `bytes`. The client gets no part of this head, so a line may also
/// end with only LF. Any thread may call this function.
TunnelAnswer readTunnelAnswer(std::string_view bytes);

/// Asks the proxy at the other end of `stream` for a tunnel. If the proxy agrees, the result takes
/// ownership of the stream.
/// @param via the relay's own name, for the Via field
/// @param end the time limit of the attempt; the attempt can end up to about one second later
Task<ThroughProxy> askForTunnel(Sweeper& sweeper, Stream& stream, const Destination& destination,
                                const std::string& via, Clock::time_point end);

}  // namespace relay
