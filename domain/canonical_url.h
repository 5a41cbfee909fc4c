// The canonical form of a URL, which this system uses to ask for a proxy. It has no secrets, and
// equivalent URLs have the same form.
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
/// - "/" for an empty path; a single "/" instead of path and query for https and wss; every other
///   path and query as given, byte for byte;
/// - IPv4 addresses as dotted quads ("0x7f.1", "%31.1"), IPv6 addresses in their shortest form with
///   their zone; percent-encoding in the host decoded; fullwidth characters and ideographic full
///   stops in the host as ASCII, other host names beyond ASCII as UTF-8;
/// - no host in a file URL ("", "localhost" and "127.0.0.1" mean this machine);
/// - a text without "://", or without a valid scheme before "://", stays unchanged.
///
/// A text that has a scheme but is not a valid URL (no host, blanks in the host, two "@", a port
/// beyond 65535, control characters) becomes only its scheme, as in "http:///", because a password
/// may stand anywhere in the rest. The canonical form of a canonical URL is the URL itself.
/// @return nothing if the URL has more than maxBytes as given or as canonical
/// Any thread; throws std::bad_alloc only.
std::optional<std::string> canonicalUrl(std::string_view url, std::size_t maxBytes = kMaxUrlBytes);

/// `host` in lower case, with the fullwidth forms of ASCII and the ideographic full stops as ASCII:
/// programs with international names connect to 127.0.0.1 for "１２７。0.0.1". Of the
/// compatibility mappings of UTS 46 these are the ones that keyboards of East Asia write. A
/// circled digit or a mathematical letter stays as it is.
/// Any thread; throws std::bad_alloc only.
std::string foldedHost(std::string_view host);

/// Whether `url` begins with a valid scheme and "://".
bool hasScheme(std::string_view url);

}  // namespace domain
