// Makes a script from the manual settings of a network manager: several servers, and destinations
// without a proxy. The daemon's mode manual has one proxy for all URLs, so these settings become a
// script.
//
// The order of the entries and the forms of an exclusion are the same as in ConnMan (its
// service-api.txt, "Servers" and "Excludes").
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace settings {

/// One server of "Servers": "[scheme://][user:password@]host[:port][/]".
struct ManualServer {
  enum class Scheme { kAny, kHttp, kHttps, kFtp, kSocks, kSocks4, kSocks5 };
  Scheme scheme = Scheme::kAny;  ///< kAny without a scheme
  std::string host;              ///< a name or an address; an IPv6 address is in brackets
  std::uint16_t port = 0;        ///< 0 if the text names none

  bool operator==(const ManualServer&) const = default;
};

/// Reads a list of servers. It skips an entry that cannot be parsed. If one entry has an unknown
/// scheme, the whole list is empty. The function drops credentials, because every user could read
/// them in the script.
std::vector<ManualServer> parseServers(const std::vector<std::string>& texts);

/// The URL for mode manual: "http://host:port" or "socks5h://host:port".
std::string manualProxyUrl(const ManualServer& server);

/// The entry that a script returns for a manual proxy's URL: "PROXY host:port" or "SOCKS
/// host:port". Empty if the URL names no proxy. Credentials are dropped.
std::string entryOfManualUrl(std::string_view url);

/// Makes the script. For each URL, the script returns three groups of servers in this order: first
/// the servers of the URL's scheme; then the servers without a scheme and the servers for http,
/// https and ftp (all as PROXY); last the SOCKS servers.
/// @param excludes "[scheme://]rule". A rule "word" or "*word" matches hosts that end with it,
/// "word*" hosts that begin with it, "*word*" hosts that contain it. An IPv6 address may be in
/// brackets. A text that is only "scheme://" matches all URLs of the scheme. A rule that is only
/// "*" is ignored.
std::string manualScript(const std::vector<ManualServer>& servers,
                         const std::vector<std::string>& excludes);

}  // namespace settings
