// Owners that free the records' heap C strings at the end of their scope. They log nothing.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "base/wipe.h"
#include "service/records/proxy_config.h"

/// Frees memory that malloc has allocated.
struct HeapFree {
  void operator()(void* memory) const { std::free(memory); }
};

/// A C string from string2Char, getHost or heapCopy; may be null. It is freed at the end of its
/// scope.
using HeapText = std::unique_ptr<char, HeapFree>;

/// @return a malloc'ed copy of `text`; null if `text` is null. Unlike string2Char, it copies an
///         empty text as an empty text. Throws std::bad_alloc if memory is exhausted.
inline char* heapCopy(const char* text) {
  if (!text) return nullptr;
  const std::size_t size = std::strlen(text) + 1;
  auto* const copy = static_cast<char*>(std::malloc(size));
  if (!copy) throw std::bad_alloc();
  std::memcpy(copy, text, size);
  return copy;
}

/// A ProxyConfig that owns its strings. `*owner` and `owner.get()` are the record, for functions
/// that need a record. A copy of `*owner` shares the strings and is valid only as long as the
/// owner. The class has no lock: the code that has the owner must prevent simultaneous use.
class ProxyConfigOwner {
 public:
  ProxyConfigOwner() = default;
  ~ProxyConfigOwner() { clear(); }
  ProxyConfigOwner(const ProxyConfigOwner&) = delete;
  ProxyConfigOwner& operator=(const ProxyConfigOwner&) = delete;

  /// Overwrites and frees the strings, and makes the record a fresh one: mode off, nothing set.
  void clear() {
    for (char* text : {mRecord.proxyurl, mRecord.pacurl, mRecord.userName, mRecord.password}) {
      base::wipe(text);
      std::free(text);
    }
    mRecord = ProxyConfig{};
  }

  ProxyConfig* get() { return &mRecord; }
  ProxyConfig* operator->() { return &mRecord; }
  const ProxyConfig* operator->() const { return &mRecord; }
  const ProxyConfig& operator*() const { return mRecord; }

 private:
  ProxyConfig mRecord;
};
