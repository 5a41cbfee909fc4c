// The form of a URL in a question to the daemon.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace client {

/// The canonical form of `url` (domain/canonical_url.h): URLs that mean the same get one answer,
/// and no user name or password reaches the bus or the daemon's log. If the text has no "://", only
/// the part before an "@" is removed.
/// @return nothing for what the bus does not carry, for more than PROXYMANAGER_MAX_URL bytes and
/// for
///         a text whose "://" follows no scheme
std::optional<std::string> askedUrl(std::string_view url);

}  // namespace client
