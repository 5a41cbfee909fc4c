// The answers of the script, kept per host. When the cache is full, the least recently used entry
// is dropped. The owner decides the capacity (PacParser::kCacheCapacity).
//
// Each key has one node in a list, whose head is the most recently used key. An ordered map finds
// the node of a key. A second map holds the key's list of entries. Both maps and the list of nodes
// always have the same keys, even after a failed allocation.
//
// The texts of the entries are not copied. The cache holds them from set() on, and passes them to
// the release callback when it drops a list. A list that get() returns shares the texts, so its
// receiver copies them before the cache changes. If a second set() of the same key replaces a list,
// the cache does not release the old list: its holders must release the texts.
//
// The cache has no lock. The owner's lock covers every call, construction and destruction included.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "service/records/proxy_config.h"

/// One key in the order of use. Its destructor logs a line and unlinks nothing.
class ProxyURLCacheNode {
 public:
  explicit ProxyURLCacheNode(const std::string& nodeKey) : key(nodeKey) {}
  ~ProxyURLCacheNode();
  ProxyURLCacheNode(const ProxyURLCacheNode&) = delete;
  ProxyURLCacheNode& operator=(const ProxyURLCacheNode&) = delete;

  std::string key;
  ProxyURLCacheNode* prev = nullptr;  ///< used more recently; null at the head
  ProxyURLCacheNode* next = nullptr;  ///< used less recently; null at the tail
};

class ProxyUrlCache {
 public:
  /// @param capacity maximum number of entries; a number below 1 counts as 1
  /// @param release called with a list before the cache drops the list. The function may empty the
  /// list and must not throw. A null pointer is accepted
  /// @param context the second argument of `release`
  ProxyUrlCache(int capacity, void (*release)(ProxyUrlSettings&, void*), void* context);
  /// Clears the cache.
  ~ProxyUrlCache();
  ProxyUrlCache(const ProxyUrlCache&) = delete;
  ProxyUrlCache& operator=(const ProxyUrlCache&) = delete;

  /// @param list the entries on a hit, which share the cache's texts; untouched on a miss
  /// @return whether the cache has `key`; if so, `key` is now the most recently used key. `key` may
  /// be any text, also an empty one
  bool get(const std::string& key, ProxyUrlSettings& list);

  /// Stores `list` under `key` as the most recently used, and replaces an earlier list of that key.
  /// Before a new key enters a full cache, the least recently used key is dropped. If an allocation
  /// fails, std::bad_alloc is thrown, the cache is unchanged and the caller still owns the texts.
  void set(const std::string& key, ProxyUrlSettings list);

  /// Drops everything, in the order of the keys.
  void clearCache();

 private:
  void remove(ProxyURLCacheNode* node);
  void setHead(ProxyURLCacheNode* node);
  void evictTail();

  const int capacity;
  ProxyURLCacheNode* head = nullptr;
  ProxyURLCacheNode* tail = nullptr;
  std::map<std::string, std::unique_ptr<ProxyURLCacheNode>> nodes;
  std::map<std::string, ProxyUrlSettings> values;
  void (*releaseCallback)(ProxyUrlSettings&, void*);
  void* const releaseContext;
};
