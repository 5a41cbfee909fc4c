// The process's one connection to the message bus, and the thread that dispatches it.
//
// The bus library is safe only while a single thread touches it: its own loop and a sender on
// another thread can deadlock, and its reference counts are plain integers. So the thread that made
// the helper may use the connection until startDispatching(). From then until stopDispatching()
// returns, only the bus thread may, and other threads hand their work to it with run().
//
// When the bus goes away, the process logs one LOG_ERR line and ends with status 1, so that its
// supervisor starts it again: nobody could reach a daemon without a bus.
#pragma once

#include <dbus-c++/dbus.h>

#include <functional>
#include <memory>
#include <string>

namespace DBus {

class BusLoop;

class BusHelper {
 public:
  /// Most functions that wait for the bus thread. The announcements of the daemon, one in two
  /// seconds, are the steadiest sender: they need half an hour of a blocked bus thread to fill it.
  static constexpr std::size_t kMaxPosted = 1024;

  /// Connects to the system bus; waits 10 s at most. Throws DBus::Error if there is none, or
  /// none that answers.
  BusHelper();
  /// Ends dispatching.
  ~BusHelper();
  BusHelper(const BusHelper&) = delete;
  BusHelper& operator=(const BusHelper&) = delete;

  /// The connection; owned by the helper.
  Connection& connection() { return *mConnection; }

  /// Asks for a well-known name and makes sure that this connection owns it; waits 5 s at most.
  /// Throws DBus::Error if the bus denies the name, somebody else owns it, or no answer comes.
  void requestName(const char* name);

  /// What the bus thread does after it has handled all that it has read, while nothing waits to be
  /// written: one piece of work. `turn` returns the milliseconds until it wants to be called again
  /// if nothing comes from the bus, 0 for at once, -1 for never. It throws nothing. While nothing
  /// is dispatched.
  void setTurn(std::function<int()> turn);

  /// Starts the bus thread, and asks for the name again if stopDispatching() has given it back.
  /// Throws as requestName(). Nothing where it runs.
  void startDispatching();

  /// Gives the bus name back, answers every call that the bus has delivered until then, runs what
  /// run() queued, sends what waits, and joins the bus thread: within 5 s each for the answers and
  /// for the sending, after which the rest is dropped. Nothing where it does not run. Not to be
  /// called on the bus thread.
  void stopDispatching();

  /// Runs `function` on the thread that may touch the connection: at once if that is the calling
  /// one, or if nothing is dispatched; else later, on the bus thread, in the order of the calls.
  /// Any thread. Exceptions of a function are logged and swallowed. If kMaxPosted functions wait
  /// already, it is dropped with one LOG_ERR line.
  void run(std::function<void()> function);

 private:
  struct DispatcherReset {
    ~DispatcherReset();
  };

  DispatcherReset mReset;          // the library's global names the loop as long as that lives
  std::unique_ptr<BusLoop> mLoop;  // outlives the connection, whose watches it holds
  std::unique_ptr<Connection> mConnection;
  std::string mName;  // empty before requestName()
};

/// The process-wide helper: made with the first call, shared by those that hold it, gone with the
/// last. Throws DBus::Error if the bus cannot be reached. Main thread.
std::shared_ptr<BusHelper> get_helper();

}  // namespace DBus
