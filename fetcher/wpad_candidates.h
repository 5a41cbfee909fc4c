// The URLs at which WPAD by DNS looks for a script.
//
// A name is shortened label by label, and never down to a public suffix: every device below that
// suffix would ask a stranger who registers "wpad" there. Two checks know public suffixes: the
// lookup in the built-in table (domain/tld.h), and isPublicSuffix(), which logs nothing and also
// knows wildcard rules and libpsl's list. The walk stops if either check finds a suffix. Both
// checks get the name in lower case and without outer dots; the URLs keep the name as it is given.
// The name that is checked must be the host that is asked. In the URL for "com/.example.com", the
// host ends at the slash, so such a name has no candidates.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace fetcher {

/// Maximum number of candidates of one walk. A walk takes up to 30 seconds for each. A search list
/// has six names at most.
inline constexpr std::size_t kMostCandidates = 32;

/// Implements PACFetcher::wpadUrlCandidatesFromDomain. Any thread. Throws std::bad_alloc.
std::vector<std::string> wpadUrlCandidates(const std::string& domain);

}  // namespace fetcher
