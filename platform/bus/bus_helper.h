// The only connection of the process to the message bus, and the thread that dispatches it.
//
// The bus library is safe only if a single thread uses it. The library's own loop and a sender on
// another thread can deadlock, and the library's reference counts are plain integers. So the thread
// that made the helper uses the connection until startDispatching(). From then until
// stopDispatching() returns, only the bus thread uses it, and other threads pass their work to the
// bus thread with run().
//
// If the connection to the bus is lost, the process logs one LOG_ERR line and ends with status 1,
// so that its supervisor starts it again. Without a bus, no program could reach the daemon.
#pragma once

#include <dbus-c++/dbus.h>

#include <functional>
#include <memory>
#include <string>

namespace DBus {

class BusLoop;

class BusHelper {
 public:
  /// Maximum number of functions that wait for the bus thread. The daemon makes one announcement
  /// every two seconds. If the bus thread is blocked, the announcements fill this queue after half
  /// an hour.
  static constexpr std::size_t kMaxPosted = 1024;

  /// Connects to the system bus; waits 10 s at most. Throws DBus::Error if there is no bus, or if
  /// it does not answer.
  BusHelper();
  /// Ends dispatching.
  ~BusHelper();
  BusHelper(const BusHelper&) = delete;
  BusHelper& operator=(const BusHelper&) = delete;

  /// The connection; owned by the helper.
  Connection& connection() { return *mConnection; }

  /// Asks for a well-known name and makes sure that this connection owns it; waits 5 s at most.
  /// Throws DBus::Error if the bus denies the name, if another process owns it, or if no answer
  /// comes.
  void requestName(const char* name);

  /// Sets `turn`, which the bus thread calls for one piece of work at a time. The bus thread calls
  /// `turn` when all input is handled and no output waits. `turn` returns a number of milliseconds:
  /// if nothing arrives from the bus for this time, `turn` is called again. 0 means at once, -1
  /// means never. `turn` throws nothing. Call setTurn() before startDispatching().
  void setTurn(std::function<int()> turn);

  /// Starts the bus thread. Requests the name again if stopDispatching() has released it. Throws
  /// the exceptions of requestName(). Does nothing if the thread already runs.
  void startDispatching();

  /// Releases the bus name, answers every call that the bus has delivered before the release, runs
  /// the functions that run() has queued, sends the waiting output, and joins the bus thread.
  /// Answering takes at most 5 s, and sending at most another 5 s. After that, all remaining calls
  /// and output are dropped. Does nothing if the thread does not run. Must not be called on the bus
  /// thread.
  void stopDispatching();

  /// Runs `function` on the thread that may use the connection. If the calling thread is this
  /// thread, or if the connection is not dispatched, the function runs at once. Else `function`
  /// runs later on the bus thread, in the order of the calls of run(). Any thread. Exceptions of a
  /// function are logged and swallowed. If kMaxPosted functions already wait, `function` is dropped
  /// with one LOG_ERR line.
  void run(std::function<void()> function);

 private:
  struct DispatcherReset {
    ~DispatcherReset();
  };

  DispatcherReset mReset;          // clears the library's pointer after the loop's destruction
  std::unique_ptr<BusLoop> mLoop;  // outlives the connection, whose watches it has
  std::unique_ptr<Connection> mConnection;
  std::string mName;  // empty before requestName()
};

/// The helper of the process. The first call makes it. It is destroyed when the last pointer to it
/// is released. Throws DBus::Error if the bus cannot be reached. Main thread.
std::shared_ptr<BusHelper> get_helper();

}  // namespace DBus
