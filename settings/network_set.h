// What network managers have pushed: one record for each configuration, by its object path.
//
// A configuration lives as long as its sender's connection to the bus, and only its sender can
// destroy it. Numbers are never used again, so a late call for an old path hits nothing.
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

/// The most configurations of one sender. A network manager has one for each connection.
inline constexpr std::size_t kMaxOfSender = 64;
/// The most configurations of all senders together: two network managers at their limit, and a
/// reserve.
inline constexpr std::size_t kMaxConfigurations = 256;
/// Longest inline script, in bytes, equal to the daemon's limit (fetcher::kMostScriptBytes).
/// NetworkManager accepts 1 MiB.
inline constexpr std::size_t kMaxScriptBytes = 512'000;
/// Longest text of another kind, in bytes.
inline constexpr std::size_t kMaxTextBytes = 8U << 10U;
/// How many entries of a list count; more are dropped.
inline constexpr std::size_t kMaxListEntries = 256;

/// The keys of CreateProxyConfiguration's dictionary that matter. Domains, BrowserOnly and
/// Nameservers restrict nothing, so they are not kept.
struct PushedConfiguration {
  enum class Method { kDirect, kAuto, kManual };
  Method method = Method::kDirect;
  std::string interface;  ///< empty if the sender named none
  std::string url;        ///< of a script; empty is the same as absent
  std::optional<std::string> script;
  std::vector<std::string> servers;
  std::vector<std::string> excludes;
};

/// A pushed configuration, translated once when it arrives.
struct NetworkConfiguration {
  std::uint64_t number = 0;  ///< of its path; a newer one is larger
  std::string sender;        ///< unique name on the bus
  std::string interface;
  bool isDirect = false;        ///< no proxy is used
  bool isUsable = false;        ///< a faulty one keeps its path and is never in force
  Configuration configuration;  ///< pacUrl is empty if `script` is to be served
  std::string script;           ///< the text to serve, pushed or generated; else empty
};

/// What the daemon does with `pushed`. Servers or URLs that cannot be used make it unusable.
NetworkConfiguration translate(const PushedConfiguration& pushed);

class NetworkSet {
 public:
  /// Keeps a configuration of `sender`. @return its number, or nothing if the sender or the set is
  /// full
  std::optional<std::uint64_t> add(NetworkConfiguration configuration, std::string_view sender);

  /// Destroys a configuration if it is of `sender`. @return whether it was
  bool remove(std::uint64_t number, std::string_view sender);

  /// Destroys all configurations of `sender`. @return how many
  std::size_t removeSender(std::string_view sender);

  std::size_t countOf(std::string_view sender) const;
  const std::map<std::uint64_t, NetworkConfiguration>& all() const { return mConfigurations; }

 private:
  std::map<std::uint64_t, NetworkConfiguration> mConfigurations;
  std::uint64_t mNext = 0;
};

/// Interface -> metric of its default route. Lower metrics go first.
using DefaultRoutes = std::map<std::string, std::uint32_t, std::less<>>;

/// The configuration in force: the usable one whose interface has the default route with the lowest
/// metric; if an interface has several, the newest. One without an interface is in force only if no
/// configuration has a default route. Direct ones count only with `directCounts`. Null if there is
/// none.
const NetworkConfiguration* holding(const NetworkSet& set, const DefaultRoutes& routes,
                                    bool directCounts);

/// The number in "/org/pacrunner/configurationN", or nothing.
std::optional<std::uint64_t> numberOfPath(std::string_view path);
std::string pathOfNumber(std::uint64_t number);

}  // namespace settings
