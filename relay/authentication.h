// Authentication with Basic and Digest for requests in absolute form (RFC 7617, RFC 7616). For
// CONNECT, libcurl does the authentication.
//
// NTLM and Negotiate authenticate a connection, not a request. The relay does not support them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "relay/configuration.h"

namespace relay {

/// Longest quoted text in a challenge, in bytes. The relay ignores a challenge with a longer text.
inline constexpr std::size_t kMaxChallengeText = 1024;

/// The strongest challenge of a known scheme that a proxy has sent.
struct Challenge {
  enum class Scheme : std::uint8_t { kNone, kBasic, kDigestMd5, kDigestSha256 };
  Scheme scheme = Scheme::kNone;
  std::string realm;
  std::string nonce;
  std::string opaque;
  bool hasQop = false;     ///< the proxy offers qop "auth"
  bool isSession = false;  ///< the name of the algorithm ends with "-sess"
  bool isStale = false;    ///< the nonce was too old; the password may be right
};

/// Chooses from the values of the Proxy-Authenticate fields of one response. @return the strongest
/// challenge; its scheme is kNone if the relay supports none of them
Challenge readChallenges(const std::vector<std::string_view>& values);

/// @return the value of the field Proxy-Authorization
/// @param method, uri as in the request line
/// @param clientNonce printable text without quotes; used for Digest only
/// @param count how often the nonce has been used, from 1; used for Digest only
std::string authorizationFor(const Challenge& challenge, const Credentials& credentials,
                             std::string_view method, std::string_view uri,
                             std::string_view clientNonce, unsigned count);

/// @return a client nonce of 128 random bits
std::string newClientNonce();

}  // namespace relay
