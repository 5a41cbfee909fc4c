// The form of a URL in a question to the daemon.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace client {

/// The canonical form of `url` (domain/canonical_url.h). Equivalent URLs get the same answer, and
/// no user name or password reaches the bus or the daemon's log. If the text has no "://", only the
/// part before the "@" of its host is removed.
/// @return nothing in these cases: the bus cannot carry the text; the text is longer than
///         PROXYMANAGER_MAX_URL bytes; there is no valid scheme before its "://"; the text has no
///         "://" but has an "@" after the first "/", "?" or "#" (a password may be before that "@")
std::optional<std::string> askedUrl(std::string_view url);

}  // namespace client
