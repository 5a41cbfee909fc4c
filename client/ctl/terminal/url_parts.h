// The parts of a URL, also of one that people write without a scheme. Pure functions.
//
// The daemon's own reading of a host gives the key of its cache, which is another thing.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace client {

/// The scheme before the first ":", which begins with a letter and goes on with letters, digits and
/// "+", "." and "-". Empty where there is none. The host of "host:80" looks like one, too.
std::string_view schemeOf(std::string_view url);

/// Where the authority of `url` begins: behind "SCHEME://", else at its beginning.
std::size_t authorityBegin(std::string_view url);

/// The canonical form of `url`, or `url` if it has none.
std::string canonicalOrGiven(const std::string& url);

/// The host, in lower case and without the brackets of an IPv6 address. Empty where there is none.
std::string hostOf(std::string_view url);

}  // namespace client
