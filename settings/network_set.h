// The configurations that network managers have pushed: one record for each configuration, found by
// its object path.
//
// A configuration ends with its sender's bus connection. Until then, only the sender can destroy
// it. Numbers are never reused, so a late call for an old path has no effect.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/configuration.h"

namespace settings {

/// Maximum number of configurations of one sender. A network manager pushes one for each of its
/// connections.
inline constexpr std::size_t kMaxOfSender = 64;
/// Maximum number of configurations of all senders together: enough for two network managers at
/// their limit, with a reserve.
inline constexpr std::size_t kMaxConfigurations = 256;
/// Longest script, pushed or generated, in bytes, equal to the daemon's limit
/// (fetcher::kMostScriptBytes). NetworkManager accepts 1 MiB.
inline constexpr std::size_t kMaxScriptBytes = 512'000;
/// Longest text of another kind, in bytes.
inline constexpr std::size_t kMaxTextBytes = 8U << 10U;
/// Maximum number of entries of a list. Further entries are dropped.
inline constexpr std::size_t kMaxListEntries = 256;

/// The keys of CreateProxyConfiguration's dictionary that have an effect. Domains, BrowserOnly and
/// Nameservers have no effect, so they are not kept.
struct PushedConfiguration {
  enum class Method { kDirect, kAuto, kManual };
  Method method = Method::kDirect;
  std::string interface;  ///< empty if the sender gave none
  std::string url;        ///< the script's URL; an empty URL counts as absent
  std::optional<std::string> script;
  std::vector<std::string> servers;
  std::vector<std::string> excludes;
};

/// A pushed configuration. It is translated once, when it arrives.
struct NetworkConfiguration {
  std::uint64_t number = 0;  ///< the number in its path; a newer configuration has a higher number
  std::string sender;        ///< unique name on the bus
  std::string interface;
  bool isDirect = false;  ///< no proxy is used
  bool isUsable = false;  ///< if false, the configuration keeps its path but is never in force
  Configuration configuration;  ///< pacUrl is empty if `script` is to be served
  std::string script;           ///< the text to serve, pushed or generated; else empty
};

/// Translates `pushed` for the daemon. If its servers or its URL cannot be used, or if the
/// generated script is longer than kMaxScriptBytes, the result is unusable.
NetworkConfiguration translate(const PushedConfiguration& pushed);

class NetworkSet {
 public:
  /// Keeps a configuration of `sender`. @return its number; nothing if the sender or the set has
  /// reached its limit
  std::optional<std::uint64_t> add(NetworkConfiguration configuration, std::string_view sender);

  /// Destroys a configuration if it belongs to `sender`. @return whether it was destroyed
  bool remove(std::uint64_t number, std::string_view sender);

  /// Destroys all configurations of `sender`. @return their number
  std::size_t removeSender(std::string_view sender);

  std::size_t countOf(std::string_view sender) const;
  const std::map<std::uint64_t, NetworkConfiguration>& all() const { return mConfigurations; }

 private:
  std::map<std::uint64_t, NetworkConfiguration> mConfigurations;
  std::uint64_t mNext = 0;
};

/// The default routes of one interface.
struct DefaultRoute {
  std::uint32_t metric = 0;  ///< metric of the best route, which has the lowest metric
  /// The gateways of all these routes: their bytes, in the order of the kernel's list. A changed
  /// gateway can mean a different network.
  std::string gateways;
  bool operator==(const DefaultRoute&) const = default;
};

/// Name of an interface -> its default routes.
using DefaultRoutes = std::map<std::string, DefaultRoute, std::less<>>;

/// The configuration in force: the usable configuration whose interface has the default route with
/// the lowest metric. If an interface has several configurations, the newest is in force. A
/// configuration without an interface is in force only if no other configuration has a default
/// route. Direct configurations count only if `directCounts` is true. Configurations with a script
/// to serve count only if `scriptsCount` is true. Null if no configuration is in force.
const NetworkConfiguration* holding(const NetworkSet& set, const DefaultRoutes& routes,
                                    bool directCounts, bool scriptsCount = true);

/// The number in "/org/pacrunner/configurationN", or nothing.
std::optional<std::uint64_t> numberOfPath(std::string_view path);
std::string pathOfNumber(std::uint64_t number);

}  // namespace settings
