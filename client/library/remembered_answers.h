// The answers that a client remembers, by the URL as the caller gave it: a lookup costs no parsing.
//
// When room is needed, the least recently used answer is dropped. If answers become wrong, the
// owner clears all of them at once.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/mutex.h"
#include "client/library/answer.h"

namespace client::library {

/// For one thread at a time.
class RememberedAnswers {
 public:
  /// @param maxAnswers maximum number of answers
  /// @param maxBytes maximum number of bytes of all answers with their URLs, by bytesOf()
  RememberedAnswers(std::size_t maxAnswers, std::size_t maxBytes)
      : mMaxAnswers(maxAnswers), mMaxBytes(maxBytes) {}
  RememberedAnswers(const RememberedAnswers&) = delete;
  RememberedAnswers& operator=(const RememberedAnswers&) = delete;

  /// @return the answer for `url`, which then is the most recently used; null if there is none
  AnswerRef find(std::string_view url);

  /// Remembers `answer` for `url`, in place of an earlier one. Does nothing if `answer` alone is
  /// larger than maxBytes. Throws std::bad_alloc and then changes nothing.
  void add(std::string_view url, const AnswerRef& answer);

  void clear();

  std::size_t count() const { return mByUse.size(); }
  std::size_t bytes() const { return mBytes; }

  /// The bytes that a URL with its answer counts as.
  static std::size_t bytesOf(std::string_view url, const AnswerRef& answer);

 private:
  struct Remembered {
    std::string url;
    AnswerRef answer;
  };
  using Place = std::list<Remembered>::iterator;

  void forget(Place place);

  std::size_t mMaxAnswers;
  std::size_t mMaxBytes;
  std::size_t mBytes = 0;
  std::list<Remembered> mByUse;                        ///< the latest used first
  std::unordered_map<std::string_view, Place> mByUrl;  ///< keys are views of texts in mByUse
};

/// The same for many threads. All share the answers. In addition, each thread has a part with its
/// own copies of those that it used last: a lookup in it writes to no memory that another thread
/// uses, so that two threads get more answers than one. Up to kParts threads have a part of their
/// own.
class SharedAnswers {
 public:
  SharedAnswers() = default;
  SharedAnswers(const SharedAnswers&) = delete;
  SharedAnswers& operator=(const SharedAnswers&) = delete;

  /// As RememberedAnswers. Any thread. Throws std::bad_alloc.
  AnswerRef find(std::string_view url);
  void add(std::string_view url, const AnswerRef& answer);
  /// As RememberedAnswers. A find() that begins after the return finds nothing.
  void clear();

  /// How many answers there may be in all: the pages that a person has open, with all they load.
  static constexpr std::size_t kMaxAnswers = 512;
  /// Maximum number of bytes of all these answers together. An answer of one entry takes about 600
  /// bytes.
  static constexpr std::size_t kMaxBytes = 512UL * 1024;

  /// More threads than processors of a usual device.
  static constexpr std::size_t kParts = 8;
  /// Copies of a part, and their bytes: what one page loads.
  static constexpr std::size_t kMaxCopies = 128;
  static constexpr std::size_t kMaxCopiedBytes = 128UL * 1024;

 private:
  /// In cache lines of its own.
  struct alignas(128) Part {
    Mutex mutex;
    /// The copies are of the answers before this change; later they are wrong.
    unsigned long change PM_GUARDED_BY(mutex) = 0;
    RememberedAnswers copies PM_GUARDED_BY(mutex){kMaxCopies, kMaxCopiedBytes};
  };
  static Part& partOfThread(std::array<Part, kParts>& parts);

  Mutex mMutex;
  RememberedAnswers mAnswers PM_GUARDED_BY(mMutex){kMaxAnswers, kMaxBytes};
  /// Counts the calls of clear(). Written under mMutex.
  std::atomic<unsigned long> mChange{0};
  std::array<Part, kParts> mParts;
};

}  // namespace client::library
