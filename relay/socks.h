// The requests of SOCKS4, SOCKS4a and SOCKS5 clients (RFC 1928). Pure functions, for any thread.
//
// Only CONNECT is supported. SOCKS5 is supported only without authentication, because the relay
// identifies its clients by the owner of their socket.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "relay/destination.h"

namespace relay {

/// Longest user identifier of a SOCKS4 request, in bytes. The relay reads and ignores it.
inline constexpr std::size_t kMaxSocksUser = 255;
/// Longest SOCKS request, in bytes: SOCKS4a with the longest user identifier and the longest name.
inline constexpr std::size_t kMaxSocksRequest = 8 + kMaxSocksUser + 1 + 255 + 1;

enum class SocksState { kMore, kDone, kRefused };

/// The result of the functions below: the next step of the handshake.
struct SocksStep {
  SocksState state = SocksState::kMore;
  std::size_t taken = 0;    ///< bytes of the input that were read; 0 if more bytes are needed
  std::string reply;        ///< to be sent at once; for a refused client, this is the last message
  Destination destination;  ///< set if the handshake is done
};

enum class SocksResult { kConnected, kFailed, kNotAllowed, kHostUnreachable };

/// Reads the greeting of a SOCKS5 client, which lists its methods.
/// @return kDone with the reply to send, kRefused, or kMore if more bytes are needed
SocksStep readSocks5Greeting(std::string_view bytes);

/// Reads a SOCKS5 request.
SocksStep readSocks5Request(std::string_view bytes);

/// Reads a SOCKS4 or SOCKS4a request.
SocksStep readSocks4Request(std::string_view bytes);

/// @return the reply that ends the handshake; `version` is 4 or 5
std::string socksReply(int version, SocksResult result);

}  // namespace relay
