// The parts of a URL, or of a text that a person wrote without a scheme. Pure functions.
//
// The daemon's cache has another rule for the host of a URL (domain/url_host.h).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace client {

/// The scheme before the first ":". It begins with a letter, and has only letters, digits, "+", "."
/// and "-". Empty if there is none. In "host:80", the host looks like a scheme, so the function
/// returns "host".
std::string_view schemeOf(std::string_view url);

/// The position at which the authority of `url` begins: after "SCHEME://", or 0 without a scheme.
std::size_t authorityBegin(std::string_view url);

/// The canonical form of `url`, or `url` if it has none.
std::string canonicalOrGiven(const std::string& url);

/// The host, in lower case and without the brackets of an IPv6 address. Empty if there is none.
std::string hostOf(std::string_view url);

}  // namespace client
