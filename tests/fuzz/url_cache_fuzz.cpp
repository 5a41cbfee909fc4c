// Compares the cache of answers with a simple model: a list of keys in the order of use. Each pair
// of bytes in the input is one call. Each owner frees its texts, so that the address sanitizer
// reports a text that is freed twice or never.
#include <algorithm>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "pac/proxy_url_cache.h"
#include "tests/fuzz/support/input.h"
#include "tests/fuzz/support/require.h"
#include "tests/fuzz/support/target.h"

using fuzz::require;

namespace {

constexpr std::size_t kMostKeys = 24;
constexpr std::size_t kMostEntries = 4;

struct Answer {
  std::string key;
  ProxyUrlSettings list;
};

bool same(const ProxyUrlSettings& one, const ProxyUrlSettings& other) {
  return std::equal(
      one.begin(), one.end(), other.begin(), other.end(),
      [](const auto& a, const auto& b) { return a.type == b.type && a.url == b.url; });
}

void freeTexts(ProxyUrlSettings& list) {
  for (auto& setting : list) cleanupProxySetting(&setting);
  list.clear();
}

/// The tested cache, and a list of the answers that the cache should have. The list begins with the
/// most recently used answer.
class Trial {
 public:
  explicit Trial(int capacity)
      : mCapacity(std::max(capacity, 1)), mCache(capacity, released, this) {}

  void set(const std::string& key, ProxyUrlSettings list) {
    const auto known = find(key);
    if (known != mModel.end()) {
      // After set() has replaced a list, the cache does not own this list, and does not release it.
      mReplaced.push_back(std::move(known->list));
      mModel.erase(known);
    } else if (mModel.size() == static_cast<std::size_t>(mCapacity)) {
      mDue.push_back(std::move(mModel.back()));
      mModel.pop_back();
    }
    mModel.push_front({key, list});
    mCache.set(key, std::move(list));
    require(mDue.empty(), "the least recently used answer is released when there is no room");
  }

  void get(const std::string& key) {
    ProxyUrlSettings list{{7, nullptr}};
    const auto known = find(key);
    const bool hit = mCache.get(key, list);
    require(hit == (known != mModel.end()), "what was set and not dropped is there");
    require(same(list, hit ? known->list : ProxyUrlSettings{{7, nullptr}}),
            "a hit gives the list, a miss touches nothing");
    if (hit) mModel.splice(mModel.begin(), mModel, known);
  }

  void clear() {
    expectAll();
    mCache.clearCache();
    require(mDue.empty(), "clearing releases every answer");
  }

  /// Expects the release of all lists, by the destruction of the cache.
  void expectAll() {
    mModel.sort([](const auto& a, const auto& b) { return a.key < b.key; });
    mDue.splice(mDue.end(), mModel);
  }

  ~Trial() {
    for (auto& list : mReplaced) freeTexts(list);
  }
  Trial(const Trial&) = delete;
  Trial& operator=(const Trial&) = delete;

 private:
  std::list<Answer>::iterator find(const std::string& key) {
    return std::find_if(mModel.begin(), mModel.end(),
                        [&](const auto& one) { return one.key == key; });
  }

  static void released(ProxyUrlSettings& list, void* context) {
    auto& due = static_cast<Trial*>(context)->mDue;
    require(!due.empty() && same(list, due.front().list), "answers are released once, in order");
    due.pop_front();
    freeTexts(list);
  }

  const int mCapacity;
  std::list<Answer> mModel;
  std::list<Answer> mDue;  ///< the call in progress must release these lists
  std::vector<ProxyUrlSettings> mReplaced;
  ProxyUrlCache mCache;  // the last member, because its destruction still uses the other members
};

ProxyUrlSettings made(std::size_t count) {
  ProxyUrlSettings list;
  for (std::size_t i = 0; i < count; ++i) {
    const auto text = "PROXY " + std::to_string(i);
    list.push_back({2, string2Char(text.data(), static_cast<std::int32_t>(text.size()))});
  }
  return list;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  Trial trial(static_cast<int>(input.below(10)) - 1);
  while (!input.empty()) {
    const auto call = input.byte();
    const auto key = std::string(input.below(kMostKeys), 'k');
    switch (call % 8) {
      case 0:
        trial.clear();
        break;
      case 1:
      case 2:
      case 3:
        trial.get(key);
        break;
      default:
        trial.set(key, made(call / 8U % kMostEntries));
    }
  }
  trial.expectAll();
  return 0;
}
