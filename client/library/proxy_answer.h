// Parses the daemon's answer for a URL. The library and proxymanagerctl use these pure functions,
// which do not use the bus or the command line.
//
// The daemon passes on texts that a script or a person wrote. If an entry cannot be the address of
// a proxy, only its text is kept. Nothing is guessed from the text, and no part of it becomes the
// address of a proxy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace client {

enum class ProxyKind {
  kDirect,
  kHttp,
  kHttps,  ///< the connection to the proxy uses TLS
  kSocks4,
  kSocks4a,
  kSocks5,   ///< the program looks up host names
  kSocks5h,  ///< the proxy looks up host names
  kUnusable,
};

/// One way to connect.
struct ProxyEntry {
  ProxyKind kind = ProxyKind::kUnusable;
  std::string text;         ///< the daemon's text
  std::string credentials;  ///< "user:password" of a URL, still percent-encoded; usually empty
  std::string host;         ///< a name, an IPv4 address, or an IPv6 address in brackets
  std::uint16_t port = 0;   ///< in host order; 0 if there is no proxy

  bool operator==(const ProxyEntry&) const = default;
};

/// Maximum number of entries of an answer. The daemon never sends more. Further entries are
/// dropped, because a program tries the entries one after the other.
inline constexpr std::size_t kMaxEntries = 64;

struct ProxyAnswer {
  std::string mode;
  std::vector<ProxyEntry>
      entries;  ///< in the order in which a program tries them; empty if there is no answer

  bool operator==(const ProxyAnswer&) const = default;
};

/// A configuration, as getProxyconfig returns it.
struct Configuration {
  std::string mode;
  std::string proxyurl;
  std::string pacurl;
  std::string enableauth;
  std::string userName;
  std::string password;
};

/// Reads one entry of a script: "DIRECT", or a keyword and "host:port". The keywords, in any letter
/// case, are PROXY and HTTP, HTTPS, SOCKS4, SOCKS5, and SOCKS. SOCKS has no version and is read as
/// version 5, which most proxies use today. With SOCKS and SOCKS5, the proxy looks up host names,
/// because a device behind a proxy often cannot resolve outside names. The port may be missing. The
/// default is 80 for PROXY and HTTP, 443 for HTTPS, and 1080 for all SOCKS keywords.
ProxyEntry parseEntry(std::string_view text);

/// Reads a script's whole answer: entries with ";" between them. Empty entries are skipped.
std::vector<ProxyEntry> parseEntries(std::string_view text);

/// The answer for URLs of this machine (domain/local_host.h): DIRECT, in the mode "local".
ProxyAnswer localAnswer();

/// Reads a manual proxy: a URL with the scheme http, https, socks (read as socks5h), socks4,
/// socks4a, socks5 or socks5h. A text without a scheme is read as http. The path may be "/" or
/// missing. An empty text means DIRECT.
ProxyEntry parseManualProxy(std::string_view text);

/// Whether `text` names a mode: "off", "manual", "pacurl" or "wpad".
bool isMode(std::string_view text);

/// Reads the texts that the daemon returns. The first is the mode. In the modes off and manual, one
/// text follows, which may be empty. In the other modes, one text follows for each entry,
/// kMaxEntries at most.
/// @return nothing if there is no text, or if the only text is "off": in this case, the daemon is
///         about to end
std::optional<ProxyAnswer> parseAnswer(std::span<const std::string> texts);

/// "user:password" for the URL of a proxy, percent-encoded; "user" without a password.
std::string credentialsOf(std::string_view userName, std::string_view password);

/// Whether the configuration's user name and password may be added to `entry` of `answer`. The
/// entry must be a proxy without credentials. In addition, the mode must be manual, or the host of
/// the entry must be one of `hosts`: a name in any letter case, or an IPv6 address in any spelling,
/// with or without brackets. The reason: a script could name any host, and that host would get the
/// password.
bool takesCredentials(const ProxyAnswer& answer, const ProxyEntry& entry,
                      std::span<const std::string> hosts);

/// Adds the user name and password of `configuration` to the entries for which takesCredentials()
/// is true. Answer and configuration are replies to two calls, and the daemon may get a new
/// configuration between the calls. The proxy of the old configuration must not get the password of
/// the new configuration.
/// @return false if `answer` does not belong to `configuration`: it has another mode, or another
/// manual proxy. The answer is then unchanged.
bool addCredentials(ProxyAnswer& answer, const Configuration& configuration,
                    std::span<const std::string> hosts);

/// Maximum number of times that a question is asked. It is asked again if its answer does not
/// belong to the configuration that is read after the answer. If the last attempt fails, too, the
/// answer stays without credentials. A second change within the same milliseconds is rare.
inline constexpr int kMaxAttempts = 3;

/// "socks5h://host:1080", with the credentials. Empty if there is no proxy.
std::string proxyUrl(const ProxyEntry& entry);

/// The scheme of proxyUrl() for an entry of this kind, or "direct" or "unusable".
std::string_view kindName(ProxyKind kind);

/// The first of `entries` that a program can use; null if there is none.
const ProxyEntry* firstUsable(std::span<const ProxyEntry> entries);

}  // namespace client
