// A client of the daemon: the questions of many threads, the remembered answers, and one thread,
// "pm-client", that uses the connection to the bus.
//
// For a question, a thread first searches the remembered answers, and usually finds the answer
// there. Else the thread puts the question into a list for the client's thread. Questions for the
// same URL share one call on the bus. If no caller waits for a call any more, the call stays in the
// list until its reply arrives, because the bus counts it as a call in progress until then. A new
// question for the same URL then joins that call.
//
// If a thread waits for its question, it checks the time limit itself, so the limit is met even if
// the client's thread is busy. The client's thread checks the limits of all other questions.
//
// After a fork, the child process may only call belongsHere(), which reads the id of the process
// that made the client.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "client/library/bus_link.h"
#include "client/library/include/proxymanager/client.h"
#include "client/library/outcome.h"
#include "client/library/remembered_answers.h"

namespace client::library {

/// Maximum number of calls in progress at a time. By default, the bus allows 128 calls for one
/// connection. The daemon answers one call after the other, so further questions wait in this
/// library.
inline constexpr std::size_t kMaxCalls = 64;

/// How long the bus may be silent while a connection is set up. The bus runs on this machine, so a
/// longer silence is an error.
inline constexpr std::chrono::seconds kSilenceLimit{10};

/// How long a client with a watch waits before it tries again to reach a lost bus: the first wait,
/// and the longest wait. The wait doubles each time.
inline constexpr std::chrono::milliseconds kFirstPause{500};
inline constexpr std::chrono::milliseconds kLongestPause{4000};

class Client final : public BusLink::Listener {
 public:
  /// @param address of the bus
  /// @param flags any flags of proxymanager_client_new()
  Client(std::string address, unsigned flags);
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  /// Called only if belongsHere() is true.
  ~Client();

  /// Whether this process made the client. A child process that has a copy of the client through
  /// fork() did not make it. Like sd-bus, this function only compares process ids.
  bool belongsHere() const;
  // Each of these functions does the work of the function with the same name in the C interface.
  // They throw std::bad_alloc.
  Outcome get(std::string_view url, std::chrono::milliseconds limit) PM_EXCLUDES(mMutex);
  /// @param remembered receives the answer if it is remembered; in this case, no question is asked
  proxymanager_status ask(std::string_view url, std::chrono::milliseconds limit,
                          proxymanager_answer_callback callback, void* context, proxymanager_id& id,
                          AnswerRef& remembered) PM_EXCLUDES(mMutex);
  bool cancel(proxymanager_id id) PM_EXCLUDES(mMutex);
  proxymanager_status watch(proxymanager_change_callback callback, void* context,
                            proxymanager_id& id) PM_EXCLUDES(mMutex);
  void unwatch(proxymanager_id id) PM_EXCLUDES(mMutex);

 private:
  /// A thread that waits for its question.
  struct Waiter {
    std::condition_variable ended;
    bool isEnded = false;
    Outcome outcome;
  };

  struct Question {
    std::string url;  ///< the caller's text
    proxymanager_id id;
    Clock::time_point end;
    Waiter* waiter;  ///< null if there is a callback
    proxymanager_answer_callback callback;
    void* context;
    Outcome outcome;
  };
  using Questions = std::list<Question>;

  /// One call to the daemon, for all questions that wait for its answer.
  struct Call : BusLink::Asked {
    std::string url;               ///< canonical
    std::uint64_t generation = 0;  ///< value of mGeneration when the call was sent
    Questions questions;
  };
  using Calls = std::list<Call>;

  struct Watch {
    /// The state of a watch: the watch is new; the client tries to reach the bus for it; or the
    /// client has reported to it whether the daemon runs.
    enum class State { kNew, kLooking, kTold };

    proxymanager_id id;
    proxymanager_change_callback callback;
    void* context;
    State state;
  };

  enum class Presence { kUnknown, kThere, kGone };

  // These functions may run on any thread.
  proxymanager_status startThread() PM_REQUIRES(mMutex);
  bool isOwnThread() const PM_REQUIRES(mMutex);
  proxymanager_status mayAsk() PM_REQUIRES(mMutex);
  std::optional<Outcome> answerHere(std::string_view url, std::string& asked) PM_EXCLUDES(mMutex);
  Calls::iterator enqueue(const std::string& asked, Questions& question) PM_REQUIRES(mMutex);
  void takeBack(Calls::iterator call, const Waiter& waiter) PM_REQUIRES(mMutex);
  void wake() const;

  // Called only on the client's thread, or on the thread that has ended the client's thread.
  static void* threadMain(void* client);
  void run();
  bool prepare() PM_EXCLUDES(mMutex);
  void expire(Clock::time_point now) PM_REQUIRES(mMutex);
  void connect(Clock::time_point now);
  void send() PM_EXCLUDES(mMutex);
  bool handleBus();
  void dropLink(const Outcome& outcome) PM_EXCLUDES(mMutex);
  void wait(bool mayBeMore);
  std::optional<Clock::time_point> wakeAt() PM_EXCLUDES(mMutex);
  void complete(Questions& questions, const Outcome& outcome) PM_REQUIRES(mMutex);
  void completeAll(const Outcome& outcome) PM_EXCLUDES(mMutex);
  void deliver() PM_EXCLUDES(mMutex);
  void invalidate(bool inFlightIsStale) PM_EXCLUDES(mMutex);
  void tellNewWatches() PM_EXCLUDES(mMutex);
  void tellWatches(proxymanager_change change) PM_EXCLUDES(mMutex);
  void tell(proxymanager_change change, bool isFirst) PM_EXCLUDES(mMutex);
  void setPresence(Presence presence);

  void replied(BusLink::Asked& asked, const Outcome& outcome, bool isFromOwner) noexcept override;
  void answersChanged() noexcept override;
  void ownerChanged(bool isThere) noexcept override;

  const pid_t mProcess;
  const std::string mAddress;
  const unsigned mFlags;

  int mWakeFd = -1;  ///< an eventfd; made once, before the thread, under mMutex
  std::atomic<bool> mIsConnected{false};
  /// Filled and cleared under mMutex: after a change, no answer from before the change may be
  /// remembered.
  SharedAnswers mRemembered;

  Mutex mMutex;
  bool mIsEnding PM_GUARDED_BY(mMutex) = false;
  std::optional<pthread_t> mThread PM_GUARDED_BY(mMutex);
  proxymanager_id mLastId PM_GUARDED_BY(mMutex) = 0;
  std::uint64_t mGeneration PM_GUARDED_BY(mMutex) = 0;  ///< counts events that make answers invalid
  Calls mCalls PM_GUARDED_BY(mMutex);
  std::size_t mQuestionCount PM_GUARDED_BY(mMutex) = 0;  ///< questions not yet ended
  Questions mEnded PM_GUARDED_BY(mMutex);  ///< questions whose callbacks must still run
  std::list<Watch> mWatches PM_GUARDED_BY(mMutex);
  proxymanager_id mRunningWatch PM_GUARDED_BY(mMutex) = 0;
  std::condition_variable mWatchReturned;

  // Used only by the client's thread.
  std::optional<BusLink> mLink;
  Clock::time_point mLinkEnd;  ///< when the client ends a link that is not ready
  bool mIsOwnerKnown = false;  ///< whether mLink has reported the owner of the daemon's name
  Clock::time_point mRetryAt;
  std::chrono::milliseconds mPause{kFirstPause};
  Presence mPresence = Presence::kUnknown;
  std::optional<proxymanager_change> mChange;  ///< a change not yet reported to the watches
};

}  // namespace client::library
