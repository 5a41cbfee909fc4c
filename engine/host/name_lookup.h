// Name lookups of scripts, with the limits of the PAC language: 20 names in one evaluation, 2 s for
// one, answers kept for up to 60 s.
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

/// Not for use by two threads.
class NameLookup {
 public:
  explicit NameLookup(NameSource source);

  /// Begins an evaluation: a new share of names, and a look at the resolver's configuration when
  /// the first of them is asked.
  void begin();

  /// Addresses of `name` (UTF-8) in `family`; empty if it has none, is no name, the share of
  /// this evaluation is used up or 2 s or `deadline` have passed. A name asked for again in the
  /// same evaluation has the same addresses and costs nothing of the share.
  /// @param watched as DnsResolver's
  std::vector<std::string> resolve(std::string_view name, AddressFamily family, Deadline deadline,
                                   int watched);

 private:
  std::vector<std::string> find(const std::string& name, AddressFamily family, Deadline deadline,
                                int watched);
  std::vector<std::string> query(const LookupCache::Key& key, Deadline deadline, int watched);

  NameSource mSource;
  DnsResolver mResolver;
  LookupCache mCache;
  bool mConfigurationSeen = false;  ///< looked at in this evaluation
  std::map<std::string, std::map<AddressFamily, std::vector<std::string>>> mAsked;
};

/// The ASCII form of `name` in lower case, by UTS 46 if it is international.
/// @return nothing if `name` is not a valid host name
std::optional<std::string> asciiName(std::string_view name);

}  // namespace pac_engine
