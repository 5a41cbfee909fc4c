// Name lookups of scripts, with the limits of the PAC language. One evaluation looks up 20 names at
// most. Each lookup takes 2 s at most. Answers are kept for 60 s at most.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/host/dns_query.h"
#include "engine/host/lookup_cache.h"
#include "engine/name_source.h"

namespace pac_engine {

inline constexpr std::size_t kNamesPerEvaluation = 20;
inline constexpr std::chrono::seconds kLookupLimit{2};

/// Two threads must not use one object at the same time.
class NameLookup {
 public:
  explicit NameLookup(NameSource source);

  /// Begins an evaluation, which may again look up the maximum number of names. The first lookup of
  /// the evaluation checks whether the resolver's configuration has changed.
  void begin();

  /// Addresses of `name` (UTF-8) in `family`. Empty if the name has no such address or is not
  /// valid. Also empty if this evaluation has looked up its maximum number of names, or if the
  /// lookup lasts longer than 2 s or until `deadline`. A repeated name in the same evaluation has
  /// the same addresses and does not count again. A name that needs no name server does not count:
  /// localhost, its subdomains, and a name that is mapped to an IPv4 literal.
  /// @param watched as for DnsResolver::lookUp()
  std::vector<std::string> resolve(std::string_view name, AddressFamily family, Deadline deadline,
                                   int watched);

 private:
  /// The addresses of `name` in both families, if `name` never needs a server. Nothing if it may
  /// need a server.
  std::optional<std::vector<std::string>> withoutServer(const std::string& name) const;
  std::vector<std::string> find(const std::string& name, AddressFamily family, Deadline deadline,
                                int watched);
  std::vector<std::string> query(const LookupCache::Key& key, Deadline deadline, int watched);

  NameSource mSource;
  DnsResolver mResolver;
  LookupCache mCache;
  bool mConfigurationSeen = false;  ///< this evaluation has checked the configuration
  std::map<std::string, std::map<AddressFamily, std::vector<std::string>>> mAsked;
};

/// The ASCII form of `name` in lower case, by UTS 46 if it is international.
/// @return nothing if `name` is not a valid host name
std::optional<std::string> asciiName(std::string_view name);

}  // namespace pac_engine
