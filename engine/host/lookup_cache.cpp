#include "engine/host/lookup_cache.h"

#include <algorithm>

namespace pac_engine {

std::optional<LookupCache::Addresses> LookupCache::find(const Key& key,
                                                        Clock::time_point now) const {
  const auto found = mEntries.find(key);
  if (found == mEntries.end() || now >= found->second.until) return std::nullopt;
  return found->second.addresses;
}

void LookupCache::store(const Key& key, Addresses addresses, std::chrono::seconds lifetime,
                        Clock::time_point now) {
  const auto kept = addresses.empty() ? kFailureKept : std::min(lifetime, kLongestKept);
  if (mEntries.erase(key) > 0) mOrder.erase(std::find(mOrder.begin(), mOrder.end(), key));
  if (kept <= std::chrono::seconds::zero()) return;
  // All steps that can fail come first; merge() only relinks nodes and cannot fail.
  decltype(mEntries) entry;
  entry.emplace(key, Entry{std::move(addresses), now + kept});
  mOrder.push_back(key);
  if (mEntries.size() == kLookupCacheNames) {
    mEntries.erase(mOrder.front());
    mOrder.pop_front();
  }
  mEntries.merge(entry);
}

void LookupCache::clear() {
  mEntries.clear();
  mOrder.clear();
}

}  // namespace pac_engine
