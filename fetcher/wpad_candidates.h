// The URLs at which WPAD by DNS looks for a script.
//
// A name is cut label by label, and never down to a public suffix: a stranger who registers "wpad"
// under one would be asked by every device in it. Two judges know public suffixes, the lookup in
// the built-in table and a silent guard that knows wildcard rules and the system's current list;
// one is enough to stop. Both see the name folded (lower case, no outer dots); the URLs keep it as
// it came. What the judges see must be the host that is asked, so a name that would not be the
// whole host of its URL, such as "com/.example.com", has none.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace fetcher {

/// A walk takes up to 30 seconds for each candidate. Search lists have six names at most.
inline constexpr std::size_t kMostCandidates = 32;

/// What PACFetcher::wpadUrlCandidatesFromDomain does. Any thread. Throws std::bad_alloc.
std::vector<std::string> wpadUrlCandidates(const std::string& domain);

}  // namespace fetcher
