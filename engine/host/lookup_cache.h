// A cache for the answers of name lookups. It has up to 500 names; a further name replaces the
// oldest one.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/wire/address_family.h"

namespace pac_engine {

inline constexpr std::size_t kLookupCacheNames = 500;
inline constexpr std::chrono::seconds kLongestKept{60};  ///< even if the TTL is longer
inline constexpr std::chrono::seconds kFailureKept{5};

/// Two threads must not use one object at the same time.
class LookupCache {
 public:
  using Clock = std::chrono::steady_clock;
  using Key = std::pair<std::string, pac_engine::AddressFamily>;
  using Addresses = std::vector<std::string>;

  /// The stored addresses of `key`; an empty list if its lookup failed. No value if nothing is
  /// stored for `key`, or if the stored lookup is no longer valid at `now`.
  std::optional<Addresses> find(const Key& key, Clock::time_point now) const;

  /// Keeps `addresses` for `lifetime`, but for 60 s at most. If there are no addresses, keeps the
  /// failure for 5 s. If there are too many names, the oldest one is dropped. A name with a
  /// lifetime of 0 is not kept.
  /// Throws std::bad_alloc if memory is exhausted; the cache then has no entry for `key`.
  void store(const Key& key, Addresses addresses, std::chrono::seconds lifetime,
             Clock::time_point now);

  void clear();

 private:
  struct Entry {
    Addresses addresses;
    Clock::time_point until;
  };
  std::map<Key, Entry> mEntries;
  std::deque<Key> mOrder;  ///< the keys of mEntries, the oldest first
};

}  // namespace pac_engine
