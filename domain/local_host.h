// Decides whether the host of a URL is on this machine or on the local network link. No proxy
// reaches such a host, so nobody has to ask the daemon about its URLs. Users of this file:
// client/library (local answers) and proxymanagerctl (no_proxy,
// client/ctl/commands/proxy_variables.h).
#pragma once

#include <string_view>

namespace domain {

/// Whether the host of `url`, a canonical URL or a text without "://", is one of
/// - localhost and names that end in ".localhost", with or without a dot at the end;
/// - 127.0.0.0/8, 169.254.0.0/16 and 0.0.0.0, in any form that inet_aton() accepts after
///   foldedHost(), and their IPv4-mapped IPv6 addresses;
/// - ::1, :: and fe80::/10.
/// Any thread; throws std::bad_alloc only.
bool isLocalUrl(std::string_view url);

}  // namespace domain
