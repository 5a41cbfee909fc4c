// A stand-in for the daemon. It owns the daemon's name on the test's bus, or no name, and gives the
// answers that the test sets. It counts the questions, which shows what a client remembers.
#pragma once

#include <sys/eventfd.h>
#include <systemd/sd-bus.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

inline constexpr const char* kDaemonName = "com.zentu.ProxyManagerService";
inline constexpr const char* kDaemonPath = "/com/zentu/ProxyManagerService";
inline constexpr const char* kDaemonInterface = "com.zentu.ProxyManagerServiceInterface";

/// How a question is answered.
struct Reply {
  std::vector<std::string> texts;  ///< the answer
  std::string error;               ///< if not empty, the name of an error instead
  bool isHeld = false;             ///< not before release()
  bool isNumber = false;           ///< with a number, which is no valid answer
};

class StandInDaemon {
 public:
  /// Throws std::runtime_error if the bus refuses the connection or the name.
  /// @param takesName false for a program on the bus that is not the daemon
  explicit StandInDaemon(bool takesName = true);
  ~StandInDaemon();
  StandInDaemon(const StandInDaemon&) = delete;
  StandInDaemon& operator=(const StandInDaemon&) = delete;

  /// Sets the answer for `url` from now on. All other URLs get {"manual", "http://p.example:1"}.
  void answer(const std::string& url, Reply reply);

  /// Sets how all other URLs are answered from now on. `rule` is called on the daemon's thread.
  void answer(std::function<Reply(const std::string& url)> rule);

  /// Answers the held questions in the order of their arrival, and holds no further questions.
  void release();

  /// The number of questions that have come for `url`, or for all URLs.
  int count(const std::string& url);
  int count();

  /// Waits until this number of questions has come for all URLs together.
  void waitFor(int count);

  /// takeName() takes the name, also from another owner. giveName() gives it up.
  void takeName();
  void giveName();

  /// Signals that answers have changed: to all connections, or to only one.
  void clear(const char* destination = nullptr);

  /// Signals that answers have changed, and then answers the held questions.
  void clearThenRelease();

  /// Sends signals that clients do not use.
  void announceState();

  /// Sends a forged signal of the bus that the daemon has ended.
  void forgeOwnerChange(const char* destination);

  /// Returns when the bus has received everything that was sent.
  void sync();

  /// The names of the connections on the bus, except this one.
  std::vector<std::string> others();

 private:
  static int onMessage(sd_bus_message* message, void* self, sd_bus_error*);
  void run();
  void answerNow(sd_bus_message* message, const Reply& reply);
  void releaseNow();
  void clearNow(const char* destination);
  /// Runs `task` on the thread of the stand-in, and waits until the task has ended.
  void post(std::function<void()> task);

  sd_bus* mBus = nullptr;
  int mWake;
  std::mutex mMutex;
  std::condition_variable mAsked;
  std::deque<std::packaged_task<void()>> mTasks;
  bool mIsEnding = false;
  std::map<std::string, Reply> mReplies;
  std::function<Reply(const std::string& url)> mRule;
  std::map<std::string, int> mCounts;
  int mCount = 0;
  std::deque<std::pair<sd_bus_message*, Reply>> mHeld;  ///< used only by the thread
  std::thread mThread;
};
