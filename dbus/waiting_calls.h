// The calls that were read from the bus and wait until they are served.
//
// The bus delivers all calls in one stream, so a call can overtake others only after it has been
// read. Therefore the bus thread first reads all messages and then serves one call, in the order of
// CallOrder. If serving a call takes long (an evaluation), an unknown number of calls collects in
// the bus. The bus thread then sends a request of its own to the bus. The bus delivers all messages
// that already wait for this connection before it answers the request. No call is served until that
// answer arrives or kReadLimit is over. So an administrator's call is found even behind thousands
// of other calls. The thread also waits once for the answers to the questions about users that it
// has sent to the bus. Without these answers, each connection of a flood would count as a separate
// user, and all of them would be served before a call of a new user.
//
// A question beyond the limits of CallOrder is refused. After an evaluation that took a second or
// more, refused calls are kept while other calls are read. They are answered after the calls of
// users who have no refused call. The reason: a program that floods the daemon sends its next call
// when it gets an answer. If ten thousand calls are open, the bus needs more time than this thread
// to pass on an answer and the next call.
//
// The bus knows the user of a connection and whether the connection has ended. This class asks the
// bus only when calls delay each other: after a call that took long, or when more than kCrowd calls
// wait. It does not block until the answers arrive. If calls are few and short, their order does
// not matter, and a call must not cost more than without this class. When no call waits, this class
// watches no connection.
//
// Bus thread only.
#pragma once

#include <dbus-c++/dbus.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "dbus/call_order.h"

class WaitingCalls {
 public:
  using Kind = CallOrder::Kind;
  using Serve = std::function<void(const DBus::CallMessage& call)>;

  /// Longest time for reading calls before one of them is served. Reading 25,600 calls from the bus
  /// takes less than 4 s. A bus that does not answer must not stop the daemon.
  static constexpr std::chrono::seconds kReadLimit{10};
  /// If serving a call takes this long, the call delays other calls.
  static constexpr std::chrono::milliseconds kLongTurn{20};
  /// After a turn of this length, the thread first reads all calls and answers the refused ones
  /// later. During a shorter turn, too few calls arrive to justify the memory.
  static constexpr std::chrono::seconds kGatheringTurn{1};
  /// If more calls than this wait, they delay each other, even if each call is short.
  static constexpr std::size_t kCrowd = 64;
  /// Longest URL of a waiting question: twice the longest URL that a script gets. With longer URLs,
  /// waiting questions would fill the 63 MiB that libdbus allows for messages that are not answered
  /// yet.
  static constexpr std::size_t kMaxWaitingUrl = 16U << 10U;
  /// Maximum number of refused calls that are kept while other calls are read: the system bus
  /// allows one user 256 connections with 128 calls each. Further refused calls are answered at
  /// once.
  static constexpr std::size_t kMaxRefused = std::size_t{256} * 128;
  /// Number of refused calls that are answered before the thread reads again.
  static constexpr std::size_t kRefusedAtOnce = 64;

  /// @param connection outlives this object
  /// @param serve answers one call; throws nothing
  /// @param refuse answers a question without the script; throws nothing
  WaitingCalls(DBus::Connection& connection, Serve serve, Serve refuse);
  ~WaitingCalls();
  WaitingCalls(const WaitingCalls&) = delete;
  WaitingCalls& operator=(const WaitingCalls&) = delete;

  /// Puts `call` into the queue, or answers it at once if too many calls of its connection or user
  /// wait.
  void add(const DBus::CallMessage& call, Kind kind, bool isUpdate);

  /// Serves the next call, if one may be served now.
  /// @return the milliseconds after which the caller must call again if nothing arrives from the
  /// bus; -1 means never
  int takeTurn();

  /// Serves all waiting calls at once, in order, after the service has been detached.
  void serveAll();

 private:
  using Clock = std::chrono::steady_clock;

  void letWait(const DBus::CallMessage& call, Kind kind, const std::string& sender, bool isUpdate);
  void queueTheOnlyOne();
  int serve(const DBus::CallMessage& call);
  void beIdle();
  void listen(bool on);
  bool onMessage(const DBus::Message& message);
  void onReply(const DBus::Message& reply);
  void noteUser(std::uint32_t serial, const DBus::Message& reply);
  void refuseOne(const DBus::CallMessage& call, const std::string& sender);
  void answerRefused();
  void askForUsers();
  void watch(bool on);
  std::uint32_t ask(const char* method, const std::string& argument);

  DBus::Connection& mConnection;
  const Serve mServe;
  const Serve mRefuse;
  DBus::MessageSlot mFilter;
  // Whether mFilter is set. A filter costs some hundred instructions for each message.
  bool mListens = false;
  // A call that arrived while no other call waited. Most calls are served before another one
  // arrives, so they do not need the queues.
  std::optional<DBus::CallMessage> mOnly;
  Kind mOnlyKind = Kind::kPlain;
  CallOrder mOrder;
  std::map<std::uint32_t, std::string> mAsked;  // serial of a question about a user -> connection
  std::uint32_t mMarker = 0;    // serial of the request whose answer ends the reading; 0 for none
  bool mWaitsForUsers = false;  // mMarker is the serial of the last question about a user
  Clock::time_point mReadLimit{};
  std::deque<DBus::CallMessage> mRefusedCalls;  // refused, not answered yet
  bool mKeepsRefused = false;                   // true while calls are read
  bool mWatches = false;
  Clock::time_point mNextWarning{};
  std::size_t mRefused = 0;
};
