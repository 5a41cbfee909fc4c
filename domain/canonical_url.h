// The canonical form of a URL. Clients send this form when they ask the daemon for a proxy. It
// contains no secrets, and equivalent URLs have the same form.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace domain {

inline constexpr std::size_t kMaxUrlBytes = 8U << 10U;  ///< longest URL that a script can see

/// The canonical URL of `url`:
/// - no user name, password or fragment;
/// - scheme and host in lower case, without the default port of http, https, ws, wss, ftp;
/// - an empty path becomes "/"; for https and wss, "/" replaces path and query; every other path
///   and query is kept byte for byte;
/// - IPv4 addresses in any form ("0x7f.1", "%31.1") become dotted quads, and IPv6 addresses get
///   their shortest form and keep their zone;
/// - in the host, percent-encoding is decoded; fullwidth characters and ideographic full stops
///   become ASCII; other characters beyond ASCII are UTF-8;
/// - the hosts "", "localhost" and "127.0.0.1" of a file URL, which mean this machine, are removed;
/// - a text without "://", or without a valid scheme before "://", stays unchanged.
///
/// A text that has a scheme but is not a valid URL is cut to its scheme, as in "http:///", because
/// any other part of it may contain a password. A URL is not valid if it has no host, blanks in the
/// host, two "@", a port beyond 65535, or control characters. The canonical form of a canonical URL
/// is the URL itself.
/// @return nothing if `url` or its canonical form is longer than maxBytes
/// Any thread; throws std::bad_alloc only.
std::optional<std::string> canonicalUrl(std::string_view url, std::size_t maxBytes = kMaxUrlBytes);

/// `host` in lower case. The fullwidth forms of ASCII and the ideographic full stops become ASCII:
/// programs that support international names connect to 127.0.0.1 for "１２７。0.0.1". UTS 46 maps
/// more compatibility characters; this function maps only those that East Asian keyboards produce.
/// A circled digit or a mathematical letter stays unchanged. Any thread; throws std::bad_alloc
/// only.
std::string foldedHost(std::string_view host);

/// Whether `url` begins with a valid scheme and "://".
bool hasScheme(std::string_view url);

}  // namespace domain
