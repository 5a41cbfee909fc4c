// The client library for C++17 and later. The rules in proxymanager/client.h are valid here, too.
// This header contains the whole C++ interface and calls the C functions, so the ABI of the library
// is the ABI of the C functions.
//
//   proxymanager::Client client;
//   const auto answer = client.get("http://www.example.org/", std::chrono::seconds(5));
//   if (!answer) std::cerr << proxymanager::text(answer.status()) << '\n';
//   for (const auto& entry : answer.entries()) std::cout << entry.url << '\n';
//
// Functions throw only std::bad_alloc, and only if there is no memory to store a callable or a
// text. A callable must not throw, because C code calls it.
#ifndef PROXYMANAGER_CLIENT_HPP
#define PROXYMANAGER_CLIENT_HPP

#include <proxymanager/client.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace proxymanager {

enum class Status {
  ok = PROXYMANAGER_OK,
  noBus = PROXYMANAGER_NO_BUS,
  noDaemon = PROXYMANAGER_NO_DAEMON,
  denied = PROXYMANAGER_DENIED,
  tooSlow = PROXYMANAGER_TOO_SLOW,
  badReply = PROXYMANAGER_BAD_REPLY,
  cancelled = PROXYMANAGER_CANCELLED,
  badArgument = PROXYMANAGER_BAD_ARGUMENT,
  noMemory = PROXYMANAGER_NO_MEMORY,
  busy = PROXYMANAGER_BUSY,
  forked = PROXYMANAGER_FORKED,
  noAnswer = PROXYMANAGER_NO_ANSWER,
};

enum class Kind {
  unusable = PROXYMANAGER_UNUSABLE,
  direct = PROXYMANAGER_DIRECT,
  http = PROXYMANAGER_HTTP,
  https = PROXYMANAGER_HTTPS,
  socks4 = PROXYMANAGER_SOCKS4,
  socks4a = PROXYMANAGER_SOCKS4A,
  socks5 = PROXYMANAGER_SOCKS5,
  socks5h = PROXYMANAGER_SOCKS5H,
};

enum class Change {
  answersChanged = PROXYMANAGER_ANSWERS_CHANGED,
  daemonCame = PROXYMANAGER_DAEMON_CAME,
  daemonWent = PROXYMANAGER_DAEMON_WENT,
};

/// A short English text that describes the status for people.
inline const char* text(Status status) noexcept {
  return proxymanager_status_text(static_cast<proxymanager_status>(status));
}

/// One way to connect. The texts end with a NUL, and are valid as long as the Answer or the Entries
/// object from which they come.
struct Entry {
  Kind kind;
  std::string_view text;
  std::string_view url;
  std::string_view scheme;
  std::string_view credentials;
  std::string_view host;
  std::uint16_t port;
};

/// Owns a reference to a proxymanager_answer, or none.
class HeldAnswer {
 public:
  HeldAnswer() noexcept = default;
  /// Takes over a reference.
  explicit HeldAnswer(proxymanager_answer* held) noexcept : mHeld(held) {}
  HeldAnswer(const HeldAnswer& other) noexcept : mHeld(proxymanager_answer_ref(other.mHeld)) {}
  HeldAnswer(HeldAnswer&& other) noexcept : mHeld(std::exchange(other.mHeld, nullptr)) {}
  HeldAnswer& operator=(HeldAnswer other) noexcept {
    std::swap(mHeld, other.mHeld);
    return *this;
  }
  ~HeldAnswer() { proxymanager_answer_unref(mHeld); }

  proxymanager_answer* raw() const noexcept { return mHeld; }

 private:
  proxymanager_answer* mHeld = nullptr;
};

/// The entries of an answer, in the order in which a program tries them; for a range-based `for`.
/// The object keeps the answer alive.
class Entries {
 public:
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = Entry;

    Entry operator*() const noexcept { return entryOf(mAnswer, mIndex); }
    Iterator& operator++() noexcept {
      ++mIndex;
      return *this;
    }
    Iterator operator++(int) noexcept {
      const auto before = *this;
      ++mIndex;
      return before;
    }
    bool operator==(const Iterator& other) const noexcept { return mIndex == other.mIndex; }
    bool operator!=(const Iterator& other) const noexcept { return mIndex != other.mIndex; }

   private:
    friend class Entries;
    Iterator(const proxymanager_answer* answer, std::size_t index) noexcept
        : mAnswer(answer), mIndex(index) {}
    const proxymanager_answer* mAnswer;
    std::size_t mIndex;
  };

  explicit Entries(HeldAnswer answer) noexcept : mAnswer(std::move(answer)) {}

  std::size_t size() const noexcept { return proxymanager_answer_count(mAnswer.raw()); }
  bool empty() const noexcept { return size() == 0; }
  /// `index` is below size().
  Entry operator[](std::size_t index) const noexcept { return entryOf(mAnswer.raw(), index); }
  Iterator begin() const noexcept { return {mAnswer.raw(), 0}; }
  Iterator end() const noexcept { return {mAnswer.raw(), size()}; }

 private:
  static Entry entryOf(const proxymanager_answer* answer, std::size_t index) noexcept {
    const proxymanager_entry& entry = *proxymanager_answer_entry(answer, index);
    return {static_cast<Kind>(entry.kind),
            entry.text,
            entry.url,
            entry.scheme,
            entry.credentials,
            entry.host,
            entry.port};
  }

  HeldAnswer mAnswer;
};

/// More about a question that failed, for a log line: see proxymanager_failure.
struct Failure {
  int error = 0;     ///< errno if there was no connection to the bus, else 0
  std::string name;  ///< the name of the error on the bus
  std::string text;  ///< the text of the error on the bus, unchanged
};

/// How a question ended, with the daemon's answer if there is one. Copies share the answer.
class Answer {
 public:
  /// The result of a question that was never asked, with Status::cancelled.
  Answer() noexcept = default;
  /// Takes ownership of `held`. `held` is null unless the status is PROXYMANAGER_OK.
  Answer(proxymanager_status status, proxymanager_answer* held) noexcept
      : mStatus(static_cast<Status>(status)), mAnswer(held) {}

  Status status() const noexcept { return mStatus; }
  /// Whether the daemon has answered. The answer may have no entry.
  explicit operator bool() const noexcept { return mStatus == Status::ok; }
  /// "off", "manual", "pacurl", "wpad", or "local" for an answer without the daemon (see
  /// PROXYMANAGER_ASK_LOCAL); empty if there is no answer.
  std::string_view mode() const noexcept { return proxymanager_answer_mode(mAnswer.raw()); }
  Entries entries() const noexcept { return Entries(mAnswer); }

 private:
  Status mStatus = Status::cancelled;
  HeldAnswer mAnswer;
};

/// The last failure of the calling thread: see proxymanager_last_failure().
inline Failure lastFailure() {
  const proxymanager_failure& failure = *proxymanager_last_failure();
  return {failure.error, failure.name, failure.text};
}

/// A watch. It ends when this object is destroyed. The object must be destroyed before its client.
/// A callback may destroy the watch that calls it. A moved-from object has no watch.
class Watch {
 public:
  Watch() noexcept = default;
  Watch(Watch&& other) noexcept
      : mClient(other.mClient), mId(std::exchange(other.mId, 0)), mTold(std::move(other.mTold)) {}
  Watch& operator=(Watch&& other) noexcept {
    Watch taken(std::move(other));  // ends the old watch of this object
    std::swap(mClient, taken.mClient);
    std::swap(mId, taken.mId);
    std::swap(mTold, taken.mTold);
    return *this;
  }
  ~Watch() {
    if (mId != 0) proxymanager_unwatch(mClient, mId);
  }

  /// Whether there is a watch.
  explicit operator bool() const noexcept { return mId != 0; }

 private:
  friend class Client;

  struct Told {
    virtual ~Told() = default;
    virtual void call(Change change) = 0;
  };
  template <typename Callable>
  struct ToldTo final : Told {
    explicit ToldTo(Callable given) : callable(std::move(given)) {}
    void call(Change change) override { callable(change); }
    Callable callable;
  };

  static void call(proxymanager_change change, void* told) noexcept {
    // This copy keeps the callable alive until it returns, even if it ends its own watch.
    const auto held = *static_cast<std::shared_ptr<Told>*>(told);
    held->call(static_cast<Change>(change));
  }

  proxymanager_client* mClient = nullptr;
  proxymanager_id mId = 0;
  std::unique_ptr<std::shared_ptr<Told>> mTold;
};

/// A client. A moved-from client may only be assigned to or destroyed.
class Client {
 public:
  /// @param flags as for proxymanager_client_new()
  explicit Client(unsigned flags = 0) noexcept : mClient(proxymanager_client_new(flags)) {}

  /// Whether there is a client. There is none if memory is missing or a flag is unknown; all
  /// questions then end with Status::badArgument.
  explicit operator bool() const noexcept { return mClient != nullptr; }

  /// The client as a pointer for the C functions. This object still owns the client.
  proxymanager_client* raw() const noexcept { return mClient.get(); }

  /// Asks and waits. Limits are rounded up to milliseconds.
  template <typename Rep, typename Period>
  Answer get(const std::string& url, std::chrono::duration<Rep, Period> limit) const noexcept {
    if (!isText(url)) return {PROXYMANAGER_BAD_ARGUMENT, nullptr};
    proxymanager_answer* answer = nullptr;
    const auto status = proxymanager_get(mClient.get(), url.c_str(), milliseconds(limit), &answer);
    return {status, answer};
  }

  /// Asks without waiting. `callable` takes an Answer. It is called once if Status::ok is returned,
  /// else never.
  /// @param id if not null, receives the number for cancel()
  template <typename Rep, typename Period, typename Callable>
  Status getAsync(const std::string& url, std::chrono::duration<Rep, Period> limit,
                  Callable&& callable, proxymanager_id* id = nullptr) const {
    using Kept = std::decay_t<Callable>;
    if (!isText(url)) return Status::badArgument;
    auto kept = std::make_unique<Kept>(std::forward<Callable>(callable));
    const auto status = proxymanager_get_async(mClient.get(), url.c_str(), milliseconds(limit),
                                               &answered<Kept>, kept.get(), id);
    if (status == PROXYMANAGER_OK) static_cast<void>(kept.release());  // answered() now owns it
    return static_cast<Status>(status);
  }

  /// Cancels a question. @return whether the question was still waiting
  bool cancel(proxymanager_id id) const noexcept {
    return proxymanager_cancel(mClient.get(), id) != 0;
  }

  /// From now on, calls `callable` for each change. `callable` takes a Change.
  /// @return a watch; an empty watch after a failure. If `status` is not null, it receives the
  /// reason
  template <typename Callable>
  [[nodiscard]] Watch watch(Callable&& callable, Status* status = nullptr) const {
    using Kept = std::decay_t<Callable>;
    Watch watch;
    watch.mClient = mClient.get();
    watch.mTold = std::make_unique<std::shared_ptr<Watch::Told>>(
        std::make_shared<Watch::ToldTo<Kept>>(std::forward<Callable>(callable)));
    const auto watched =
        proxymanager_watch(mClient.get(), &Watch::call, watch.mTold.get(), &watch.mId);
    if (status != nullptr) *status = static_cast<Status>(watched);
    return watch;
  }

 private:
  struct Free {
    void operator()(proxymanager_client* client) const noexcept {
      proxymanager_client_free(client);
    }
  };

  /// In C, a text ends at its first NUL. So a URL with a NUL would become a different URL.
  static bool isText(const std::string& url) noexcept {
    return url.find('\0') == std::string::npos;
  }

  template <typename Rep, typename Period>
  static unsigned milliseconds(std::chrono::duration<Rep, Period> limit) noexcept {
    using Milliseconds = std::chrono::duration<double, std::milli>;
    const double count = std::chrono::duration_cast<Milliseconds>(limit).count();
    if (!(count > 0)) return 0;
    if (count >= static_cast<double>(UINT_MAX)) return UINT_MAX;
    const auto whole = static_cast<unsigned>(count);
    return static_cast<double>(whole) < count ? whole + 1 : whole;
  }

  template <typename Kept>
  static void answered(proxymanager_status status, proxymanager_answer* answer,
                       void* kept) noexcept {
    const std::unique_ptr<Kept> callable(static_cast<Kept*>(kept));
    (*callable)(Answer(status, answer));
  }

  std::unique_ptr<proxymanager_client, Free> mClient;
};

}  // namespace proxymanager

#endif
