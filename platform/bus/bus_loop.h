// The event loop of the bus thread.
//
// The bus library's own loop has three faults. It loses an early request to leave. If output is
// pending, it never notices that the bus is gone. If another thread sends a signal, the loop does
// not notice the signal until its next wake-up. BusLoop keeps its own lists of watches and
// timeouts, polls each watch as a separate entry, and is woken by an eventfd. It ends when another
// thread asks for its end (even before the loop has started), or when the connection is lost. It
// sleeps without a time limit if the library has no timeout pending, so that an idle daemon is
// never woken.
//
// The library queues output that the bus does not accept at once, and this queue has no bound. So
// while output waits, the loop reads nothing and runs no posted function. If a caller sends calls
// too fast, or does not read its answers, the caller fills memory of the bus, up to the limits of
// the bus. It does not fill memory of this process. The queue contains at most the answers to the
// calls of one read (a few KiB of calls, or one longer call), or the output of one posted function.
#pragma once

#include <dbus-c++/dbus.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "base/unique_fd.h"

namespace DBus {

class BusLoop : public Dispatcher {
 public:
  /// How a run of the loop ended.
  enum class End { kLeft, kLost };

  /// @param maxPosted bound of the queue that post() fills
  explicit BusLoop(std::size_t maxPosted);
  ~BusLoop() override;
  BusLoop(const BusLoop&) = delete;
  BusLoop& operator=(const BusLoop&) = delete;

  /// Starts a thread that runs the loop for `connection`; `lost` is called on that thread if the
  /// connection is lost.
  /// @param name the connection's well-known name, which the loop releases at its end; may be empty
  void start(Connection& connection, const std::string& name, std::function<void()> lost);
  /// Ends and joins the thread. Before its end, the loop releases the name, answers the calls that
  /// the bus has delivered, runs the posted functions and sends the waiting output. Answering takes
  /// at most 5 s, and sending at most another 5 s. After that, all remaining calls and output are
  /// dropped.
  void stop();

  /// See BusHelper::setTurn().
  void setTurn(std::function<int()> turn) { mTurn = std::move(turn); }
  /// Whether the loop released the name when its last run ended.
  bool hasReleasedName() const { return mHasReleasedName; }

  /// Queues `function` for the thread. @return false if the queue is full or memory is exhausted
  bool post(std::function<void()> function) PM_EXCLUDES(mMutex);

  /// Calls `function`. An exception becomes a LOG_ERR line.
  static void runLogged(const std::function<void()>& function);

  /// Whether the loop's thread runs and is not the calling thread.
  bool runsElsewhere() const;

  // The functions that the bus library calls.
  void enter() override;
  void leave() override;
  Timeout* add_timeout(Timeout::Internal* internal) override PM_EXCLUDES(mMutex);
  void rem_timeout(Timeout* timeout) override PM_EXCLUDES(mMutex);
  Watch* add_watch(Watch::Internal* internal) override PM_EXCLUDES(mMutex);
  void rem_watch(Watch* watch) override PM_EXCLUDES(mMutex);

 private:
  class LoopWatch;
  class LoopTimeout;
  using Clock = std::chrono::steady_clock;

  End run();
  void runPosted() PM_EXCLUDES(mMutex);
  void waitAndHandle(int turnTimeout) PM_EXCLUDES(mMutex);
  int takeTurn();
  bool onMessage(const Message& message);
  void answerWhatHasCome(Clock::time_point limit);
  void handleWatches() PM_EXCLUDES(mMutex);
  void handleTimeouts() PM_EXCLUDES(mMutex);
  std::size_t posted() PM_EXCLUDES(mMutex);
  void leaveInOrder() PM_EXCLUDES(mMutex);
  void sendWhatWaits(Clock::time_point limit) PM_EXCLUDES(mMutex);
  bool outputWaits() PM_EXCLUDES(mMutex);
  void collectEntries() PM_EXCLUDES(mMutex);
  int pollTimeout() PM_EXCLUDES(mMutex);
  void kick() const;

  const std::size_t mMaxPosted;
  const base::UniqueFd mEventFd;
  std::atomic<bool> mLeave{false};
  Connection* mConnection = nullptr;  // owned by the helper; set before the thread starts
  std::string mName;
  std::function<void()> mLost;
  std::function<int()> mTurn;
  unsigned int mReleaseSerial = 0;  // serial of the call that releases the name; 0 for none
  bool mHasReleasedName = false;
  std::thread mThread;
  std::atomic<std::thread::id> mThreadId{};

  // The mutex is never held while a watch, a timeout or a posted function is handled.
  mutable ::Mutex mMutex;                                     // not the bus library's Mutex
  std::vector<LoopWatch*> mWatches PM_GUARDED_BY(mMutex);     // deleted by rem_watch
  std::vector<LoopTimeout*> mTimeouts PM_GUARDED_BY(mMutex);  // deleted by rem_timeout
  std::deque<std::function<void()>> mPosted PM_GUARDED_BY(mMutex);

  // mPolled[i] is the watch of mEntries[i]. The first entry is the eventfd, which has no watch.
  std::vector<pollfd> mEntries;
  std::vector<LoopWatch*> mPolled;
};

}  // namespace DBus
