// Basic and Digest for requests in absolute form (RFC 7617, RFC 7616): libcurl has them for
// CONNECT.
//
// NTLM and Negotiate authenticate a connection rather than a request, and are not here.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "relay/configuration.h"

namespace relay {

/// Longest parameter of a challenge, in bytes.
inline constexpr std::size_t kMaxChallengeText = 1024;

/// What a proxy asked for, of the schemes that are known: the strongest one.
struct Challenge {
  enum class Scheme : std::uint8_t { kNone, kBasic, kDigestMd5, kDigestSha256 };
  Scheme scheme = Scheme::kNone;
  std::string realm;
  std::string nonce;
  std::string opaque;
  bool hasQop = false;     ///< "auth" is offered
  bool isSession = false;  ///< "-sess"
  bool isStale = false;    ///< the nonce was too old; the password may be right
};

/// Reads the values of the fields Proxy-Authenticate.
Challenge readChallenges(const std::vector<std::string_view>& values);

/// The value of Proxy-Authorization.
/// @param method and uri those of the request line
/// @param clientNonce printable, without quotes; of Digest
/// @param count how often the nonce is used, from 1; of Digest
std::string authorizationFor(const Challenge& challenge, const Credentials& credentials,
                             std::string_view method, std::string_view uri,
                             std::string_view clientNonce, unsigned count);

/// A client nonce of 128 random bits.
std::string newClientNonce();

}  // namespace relay
