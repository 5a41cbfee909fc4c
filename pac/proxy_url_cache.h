// The answers of the script, kept per host. When the cache is full, the least recently used entry
// is dropped. The owner decides the capacity (PacParser::kCacheCapacity).
//
// Each key has one node in a linked list. The head of the list is the most recently used key. An
// ordered map finds the node of a key. A second map has the entries of each key. Both maps and the
// linked list always have the same keys, even after a failed allocation.
//
// The texts of the entries are not copied. With set(), the cache becomes their owner. When the
// cache drops a list of entries, it passes the list to the release callback. A list that get()
// returns shares the texts, so the caller must copy them before the cache changes. If set()
// replaces the list of an existing key, the cache does not release the old list: the code that
// still has this list must release the texts.
//
// The cache has no lock. Its owner must hold a lock during every call, also during construction and
// destruction.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "service/records/proxy_config.h"

/// A node of the linked list: one key in the order of use. Its destructor logs a line, and does not
/// remove the node from the list.
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
  /// @param capacity maximum number of keys; a number below 1 counts as 1
  /// @param release called with each list that the cache is about to drop. The function may empty
  /// the list and must not throw. May be null
  /// @param context the second argument of `release`
  ProxyUrlCache(int capacity, void (*release)(ProxyUrlSettings&, void*), void* context);
  /// Clears the cache.
  ~ProxyUrlCache();
  ProxyUrlCache(const ProxyUrlCache&) = delete;
  ProxyUrlCache& operator=(const ProxyUrlCache&) = delete;

  /// @param list receives the entries if the cache has `key`; they share the cache's texts. If the
  /// cache does not have `key`, `list` is not changed
  /// @return whether the cache has `key`; if so, `key` is now the most recently used key. `key` may
  /// be any text, also an empty one
  bool get(const std::string& key, ProxyUrlSettings& list);

  /// Stores `list` under `key`, makes `key` the most recently used key, and replaces an earlier
  /// list of that key. Before a new key enters a full cache, the least recently used key is
  /// dropped. If an allocation fails, std::bad_alloc is thrown, the cache is unchanged and the
  /// caller still owns the texts.
  void set(const std::string& key, ProxyUrlSettings list);

  /// Drops all keys, in their alphabetical order.
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
