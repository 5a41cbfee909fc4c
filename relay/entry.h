// One entry of the daemon's answer: a proxy, or DIRECT.
#pragma once

#include <proxymanager/client.h>

#include <cstdint>
#include <string>
#include <vector>

namespace relay {

struct Entry {
  proxymanager_kind kind = PROXYMANAGER_DIRECT;
  std::string text;         ///< the daemon's text, for people
  std::string host;         ///< a name or an address, without brackets
  std::uint16_t port = 0;   ///< 0 for DIRECT
  std::string credentials;  ///< "user:password", percent-encoded; usually empty

  bool isDirect() const { return kind == PROXYMANAGER_DIRECT; }
  bool isHttp() const { return kind == PROXYMANAGER_HTTP || kind == PROXYMANAGER_HTTPS; }
  /// A name without credentials, for people and as a key of maps: "http://proxy.example.org:3128"
  /// or "DIRECT".
  std::string name() const;
};

/// The daemon's answer for one URL.
struct Answer {
  proxymanager_status status = PROXYMANAGER_NO_DAEMON;
  std::string mode;  ///< "off", "manual", "pacurl", "wpad", "local"; empty if there is no answer
  std::vector<Entry> entries;  ///< the usable entries, in the order in which they are tried
};

}  // namespace relay
