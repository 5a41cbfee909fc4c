// Has the daemon's name on the test's bus, or none, and answers as the test says. It counts what it
// is asked, which shows what a client remembers.
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
  bool isNumber = false;           ///< with a number, which is none
};

class StandInDaemon {
 public:
  /// Throws std::runtime_error if the bus refuses the connection or the name.
  /// @param takesName false for a stranger on the bus
  explicit StandInDaemon(bool takesName = true);
  ~StandInDaemon();
  StandInDaemon(const StandInDaemon&) = delete;
  StandInDaemon& operator=(const StandInDaemon&) = delete;

  /// How `url` is answered from now on; all others are with {"manual", "http://p.example:1"}.
  void answer(const std::string& url, Reply reply);

  /// How every other URL is answered from now on. `rule` is called on the daemon's thread.
  void answer(std::function<Reply(const std::string& url)> rule);

  /// Answers what is held, in the order in which it came, and holds nothing any more.
  void release();

  /// How many questions have come for `url`, or in all.
  int count(const std::string& url);
  int count();

  /// Waits until so many questions have come in all.
  void waitFor(int count);

  /// Takes the name, also from one that has it; or gives it up.
  void takeName();
  void giveName();

  /// Says that answers have changed: to all, or to one connection alone.
  void clear(const char* destination = nullptr);

  /// Says that answers have changed, and answers what is held, in this order.
  void clearThenRelease();

  /// Says what clients have no use for.
  void announceState();

  /// Forges the word of the bus that the daemon went.
  void forgeOwnerChange(const char* destination);

  /// Returns when the bus has taken all that was sent.
  void sync();

  /// The names of the connections on the bus but this one.
  std::vector<std::string> others();

 private:
  static int onMessage(sd_bus_message* message, void* self, sd_bus_error*);
  void run();
  void answerNow(sd_bus_message* message, const Reply& reply);
  void releaseNow();
  void clearNow(const char* destination);
  /// Does it on the thread, and waits until it is done.
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
  std::deque<std::pair<sd_bus_message*, Reply>> mHeld;  ///< the thread's own
  std::thread mThread;
};
