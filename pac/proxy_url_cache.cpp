#include "pac/proxy_url_cache.h"

#include <algorithm>
#include <utility>

#include "base/log_line.h"

ProxyURLCacheNode::~ProxyURLCacheNode() {
  logLine(LOG_INFO, "~ProxyURLCacheNode called ");
  prev = nullptr;
  next = nullptr;
}

ProxyUrlCache::ProxyUrlCache(int most, void (*release)(ProxyUrlSettings&, void*), void* context)
    : capacity(std::max(most, 1)), releaseCallback(release), releaseContext(context) {}

ProxyUrlCache::~ProxyUrlCache() {
  clearCache();
  releaseCallback = nullptr;
}

bool ProxyUrlCache::get(const std::string& key, ProxyUrlSettings& list) {
  logLine(LOG_INFO, "get key:%s", key.c_str());
  const auto found = nodes.find(key);
  if (found == nodes.end()) return false;
  remove(found->second.get());
  setHead(found->second.get());
  list = values.find(key)->second;
  return true;
}

void ProxyUrlCache::set(const std::string& key, ProxyUrlSettings list) {
  logLine(LOG_NOTICE, "set key:%s", key.c_str());
  if (const auto found = nodes.find(key); found != nodes.end()) {
    remove(found->second.get());
    setHead(found->second.get());
    values.find(key)->second = std::move(list);
    return;
  }
  // All steps that can fail come before any change; merge() only relinks nodes and cannot fail.
  decltype(values) newValue;
  newValue.emplace(key, std::move(list));
  decltype(nodes) newNode;
  ProxyURLCacheNode* const node =
      newNode.emplace(key, std::make_unique<ProxyURLCacheNode>(key)).first->second.get();

  if (nodes.size() >= static_cast<std::size_t>(capacity)) evictTail();
  setHead(node);
  nodes.merge(newNode);
  values.merge(newValue);
}

void ProxyUrlCache::clearCache() {
  logLine(LOG_INFO, "clearCache called ");
  for (auto& [key, list] : values) {
    if (releaseCallback) releaseCallback(list, releaseContext);
    nodes.find(key)->second.reset();
  }
  nodes.clear();
  values.clear();
  head = nullptr;
  tail = nullptr;
}

void ProxyUrlCache::remove(ProxyURLCacheNode* node) {
  logLine(LOG_INFO, "remove key:%s", node->key.c_str());
  (node->prev ? node->prev->next : head) = node->next;
  (node->next ? node->next->prev : tail) = node->prev;
}

void ProxyUrlCache::setHead(ProxyURLCacheNode* node) {
  logLine(LOG_INFO, "setHead key:%s", node->key.c_str());
  node->next = head;
  node->prev = nullptr;
  if (head) head->prev = node;
  head = node;
  if (!tail) tail = node;
}

void ProxyUrlCache::evictTail() {
  ProxyURLCacheNode* const victim = tail;
  remove(victim);  // also moves `tail`
  logLine(LOG_INFO, "remove deleteNode key:%s", victim->key.c_str());
  const auto value = values.find(victim->key);
  nodes.erase(nodes.find(victim->key));
  if (releaseCallback) releaseCallback(value->second, releaseContext);
  values.erase(value);
}
