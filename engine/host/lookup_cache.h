// Answers of name lookups, kept for a while: 500 names, the oldest go first.
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
inline constexpr std::chrono::seconds kLongestKept{60};  ///< however long the name server allows
inline constexpr std::chrono::seconds kFailureKept{5};

/// Not for use by two threads.
class LookupCache {
 public:
  using Clock = std::chrono::steady_clock;
  using Key = std::pair<std::string, pac_engine::AddressFamily>;
  using Addresses = std::vector<std::string>;

  /// The stored lookup of `key` at the time `now`: the addresses, or an empty list for a failure;
  /// no value if the lookup is not stored.
  std::optional<Addresses> find(const Key& key, Clock::time_point now) const;

  /// Keeps `addresses` for `lifetime`, for 60 s at most, or a failure (no addresses) for 5 s. If
  /// there are too many names, it drops the oldest one. It does not keep a name with a lifetime of
  /// 0.
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
  std::deque<Key> mOrder;  ///< keys of mEntries, first stored first
};

}  // namespace pac_engine
