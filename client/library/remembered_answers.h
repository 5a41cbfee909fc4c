// The answers that a client remembers. The key is the caller's URL, unchanged, so a lookup needs no
// parsing.
//
// When space is needed, the least recently used answer is dropped. If answers may have become
// wrong, the owner clears all of them at once.
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

/// Only one thread at a time may use an object of this class.
class RememberedAnswers {
 public:
  /// @param maxAnswers maximum number of answers
  /// @param maxBytes maximum number of bytes of all answers with their URLs, by bytesOf()
  RememberedAnswers(std::size_t maxAnswers, std::size_t maxBytes)
      : mMaxAnswers(maxAnswers), mMaxBytes(maxBytes) {}
  RememberedAnswers(const RememberedAnswers&) = delete;
  RememberedAnswers& operator=(const RememberedAnswers&) = delete;

  /// @return the answer for `url`, which becomes the most recently used one; null if there is none
  AnswerRef find(std::string_view url);

  /// Remembers `answer` for `url`, and replaces an earlier answer. Does nothing if this one answer
  /// is larger than maxBytes. If the function throws std::bad_alloc, nothing has changed.
  void add(std::string_view url, const AnswerRef& answer);

  void clear();

  std::size_t count() const { return mByUse.size(); }
  std::size_t bytes() const { return mBytes; }

  /// The number of bytes of a URL with its answer, for the comparison with maxBytes.
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
  std::list<Remembered> mByUse;                        ///< the most recently used first
  std::unordered_map<std::string_view, Place> mByUrl;  ///< keys are views of texts in mByUse
};

/// Remembered answers for many threads. All threads share the answers. In addition, each thread has
/// a part with its own copies of the answers that it used last. A lookup in this part does not
/// write to memory that another thread uses, so two threads together are faster than one. If there
/// are more than kParts threads, some of them share a part.
class SharedAnswers {
 public:
  SharedAnswers() = default;
  SharedAnswers(const SharedAnswers&) = delete;
  SharedAnswers& operator=(const SharedAnswers&) = delete;

  /// find() and add() do the same as in RememberedAnswers. Any thread may call them. They throw
  /// std::bad_alloc.
  AnswerRef find(std::string_view url);
  void add(std::string_view url, const AnswerRef& answer);
  /// Forgets all answers. A find() that begins after clear() has returned finds nothing until the
  /// next add().
  void clear();

  /// Maximum number of all answers. This is enough for the pages that a person has open, with
  /// everything that they load.
  static constexpr std::size_t kMaxAnswers = 512;
  /// Maximum number of bytes of all these answers together. An answer with one entry takes about
  /// 600 bytes.
  static constexpr std::size_t kMaxBytes = 512UL * 1024;

  /// Number of parts: more than the number of processors of a usual device.
  static constexpr std::size_t kParts = 8;
  /// Maximum number of copies in a part, and of their bytes. This is enough for one page.
  static constexpr std::size_t kMaxCopies = 128;
  static constexpr std::size_t kMaxCopiedBytes = 128UL * 1024;

 private:
  /// Each part has its own cache lines.
  struct alignas(128) Part {
    Mutex mutex;
    /// The value of mChange for which the copies are valid. After the next clear(), they are not
    /// used.
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
