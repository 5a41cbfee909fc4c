// The answers of the script, kept per host: the least recently used one goes when the cache is
// full.
//
// Each key is one node of a list (head: most recently used) that an ordered map finds, and one list
// of entries in a second map. The keys of both maps and of the list are always the same set, also
// after an allocation failed.
//
// The entries' texts are not copied. The cache holds them from set() on and hands them to the
// release callback when it drops a list; the lists that get() hands out share them, so whoever got
// one copies the texts out before the cache changes. A list that a second set() of its key
// replaces is not released: its texts are the business of whoever holds them.
//
// No lock of its own: every call, construction and destruction included, is under the owner's.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "service/records/proxy_config.h"

/// One key in the order of use. Its destructor says a line and unlinks nothing.
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
  /// @param capacity most entries kept; a number below 1 counts as 1
  /// @param release called on a list before it is dropped, may empty it, throws nothing; may be
  /// null
  /// @param context its second argument
  ProxyUrlCache(int capacity, void (*release)(ProxyUrlSettings&, void*), void* context);
  /// Clears.
  ~ProxyUrlCache();
  ProxyUrlCache(const ProxyUrlCache&) = delete;
  ProxyUrlCache& operator=(const ProxyUrlCache&) = delete;

  /// @param list a hit's entries, sharing the cache's texts; untouched on a miss
  /// @return whether `key` (any text, the empty one included) was there; it is then the most
  ///         recently used
  bool get(const std::string& key, ProxyUrlSettings& list);

  /// Stores `list` under `key` as the most recently used, in place of what was there; a new key in
  /// a full cache drops the least recently used one first. When an allocation fails, std::bad_alloc
  /// is thrown, the cache is as it was and the texts stay the caller's.
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
