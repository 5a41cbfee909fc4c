// What a script may know of a request URL.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pac_engine {

/// The text that FindProxyForURL gets for `url`:
/// - no user name, password or fragment;
/// - for https and wss a single "/" instead of path and query; for other schemes both as they are;
/// - scheme and host in lower case, without the default port of http, https, ws, wss, ftp;
/// - a text without "://" as it is.
/// Parsed by curl's URL API, which also writes IPv4 addresses as dotted quads.
/// Of a text with a scheme that curl does not take for a URL (no host, blanks, a port beyond 65535)
/// only the scheme is handed over, as in "http:///": a password may stand anywhere in the rest.
/// @return nothing for a text whose "://" follows no scheme, and for more than 8 KiB before or
/// after
///         cleaning
std::optional<std::string> cleanedUrl(std::string_view url);

}  // namespace pac_engine
