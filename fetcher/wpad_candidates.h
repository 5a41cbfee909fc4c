// The URLs at which WPAD by DNS looks for a script.
//
// A name is shortened label by label, but never down to a public suffix. If it were, a stranger
// could register "wpad" below that suffix, and all devices below the suffix would fetch the
// stranger's script. Two checks find public suffixes: the lookup in the built-in table
// (domain/tld.h), and isPublicSuffix(). isPublicSuffix() logs nothing, and also applies wildcard
// rules and libpsl's list. The shortening stops if either check finds a public suffix. Both checks
// get the name in lower case and without dots at its ends; the URLs contain the name unchanged. The
// checked name must be the host of the URL. For example, in a URL for "com/.example.com" the host
// would end at the slash, so such a name has no candidates.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace fetcher {

/// Maximum number of candidates of one walk. A walk takes up to 30 seconds for each candidate. A
/// usual search list has six names at most.
inline constexpr std::size_t kMostCandidates = 32;

/// Implements PACFetcher::wpadUrlCandidatesFromDomain. Any thread. Throws std::bad_alloc.
std::vector<std::string> wpadUrlCandidates(const std::string& domain);

}  // namespace fetcher
