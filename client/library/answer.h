// The answer that a program gets. An answer never changes after its creation, and it counts its
// references.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "client/library/include/proxymanager/client.h"
#include "client/library/proxy_answer.h"

/// The answer of the C interface. It owns the texts to which its entries point.
struct proxymanager_answer {
 public:
  explicit proxymanager_answer(client::ProxyAnswer parsed);
  proxymanager_answer(const proxymanager_answer&) = delete;
  proxymanager_answer& operator=(const proxymanager_answer&) = delete;

  void hold() { mHolders.fetch_add(1, std::memory_order_relaxed); }
  /// Releases a reference. The last release deletes the answer.
  void give();

  const client::ProxyAnswer& parsed() const { return mParsed; }
  const std::string& mode() const { return mParsed.mode; }
  const std::vector<proxymanager_entry>& entries() const { return mEntries; }

  /// The approximate memory of the answer, in bytes.
  std::size_t bytes() const;

 private:
  ~proxymanager_answer() = default;

  std::atomic<unsigned> mHolders{1};
  const client::ProxyAnswer mParsed;
  std::vector<std::string> mUrls;
  std::vector<proxymanager_entry> mEntries;
};

namespace client::library {

/// Owns a reference to an answer, or none.
class AnswerRef {
 public:
  AnswerRef() = default;
  /// Takes over a reference.
  explicit AnswerRef(proxymanager_answer* held) : mAnswer(held) {}
  AnswerRef(const AnswerRef& other) noexcept : mAnswer(other.mAnswer) {
    if (mAnswer != nullptr) mAnswer->hold();
  }
  AnswerRef(AnswerRef&& other) noexcept : mAnswer(std::exchange(other.mAnswer, nullptr)) {}
  AnswerRef& operator=(AnswerRef other) noexcept {
    std::swap(mAnswer, other.mAnswer);
    return *this;
  }
  ~AnswerRef() {
    if (mAnswer != nullptr) mAnswer->give();
  }

  proxymanager_answer* get() const { return mAnswer; }
  proxymanager_answer* operator->() const { return mAnswer; }
  explicit operator bool() const { return mAnswer != nullptr; }
  /// Passes the reference to the caller.
  proxymanager_answer* release() { return std::exchange(mAnswer, nullptr); }

 private:
  proxymanager_answer* mAnswer = nullptr;
};

}  // namespace client::library
