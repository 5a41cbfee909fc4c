// The order in which waiting calls are served.
//
// A call that a script answers takes up to 5.25 s, and the bus thread serves one call at a time. So
// each connection has a queue of waiting calls, and this class decides whose call is next. Within a
// connection, calls keep their order of arrival. The next call is chosen from the first calls of
// all connections, in this order:
//
// 1. calls that need no script, from root and from the service's own user;
// 2. calls that need no script, from all other users;
// 3. questions, which need the script. After kPlainInARow calls of the first two kinds, one
// question is served.
//
// Within each kind, the users take turns (round robin), and then the connections of a user take
// turns. A connection whose user is not known yet counts as a user of its own. A new connection
// comes after the connections that already wait, and before the connection that was served last.
//
// The class does not use the bus: the caller passes names and users. The class has no lock, because
// only one thread uses it.
#pragma once

#include <dbus-c++/dbus.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

class CallOrder {
 public:
  /// Whether a call needs the script (kQuestion) or not (kPlain).
  enum class Kind : std::uint8_t { kPlain, kQuestion };

  /// Maximum number of waiting questions of one connection, and of one user. A browser has a few
  /// tens of requests in progress. A further question is answered at once, without the script.
  static constexpr std::size_t kMaxOfConnection = 64;
  static constexpr std::size_t kMaxOfUser = 256;
  /// Maximum number of calls in a row that need no script while a question waits.
  static constexpr unsigned kPlainInARow = 64;

  /// @param ownUser user of this process; the calls of this user and of root go first
  explicit CallOrder(unsigned long ownUser) : mOwnUser(ownUser) {}

  /// Whether one more call of `sender` may wait. A question must stay within the limits of its
  /// connection and of its user. A call that needs no script may wait if fewer than
  /// kMaxOfConnection calls of its connection wait.
  bool hasRoom(const std::string& sender, Kind kind) const;

  /// Puts `call` into the queue. Does not check the bounds: the caller calls hasRoom() first.
  void add(const std::string& sender, Kind kind, DBus::CallMessage call);

  /// Records that a call of `sender` was served at once. At the next choice, `sender` then comes
  /// after all connections that have arrived by then.
  void noteServed(const std::string& sender, Kind kind);

  /// The connections whose user the caller must now find out. While calls of a connection wait, the
  /// connection is returned only once.
  std::vector<std::string> takeUnknown();

  /// Takes the next call. @return nothing if none waits
  std::optional<DBus::CallMessage> next();

  /// Records that a call of `sender` was refused. A user is modest if none of its calls was refused
  /// since the last forgetRefused().
  void noteRefused(const std::string& sender);
  void forgetRefused();

  /// Takes the next call of a modest user. @return nothing if none waits
  std::optional<DBus::CallMessage> nextOfModest();

  /// Sets the user of a connection. If the user now has more questions than its bound allows, the
  /// newest ones are removed from the queue. @return the removed questions
  std::vector<DBus::CallMessage> setUser(const std::string& sender, unsigned long user);

  /// Drops the calls of `sender`, which has left the bus.
  void drop(const std::string& sender);

  /// Forgets all connections and users. Called only while nothing waits.
  void forget();

  std::size_t waiting() const { return mWaiting; }

 private:
  using Turns = std::array<std::uint64_t, 2>;  // for each kind of call: the number of the last turn
  struct User {
    Turns lastTurn{};
    std::size_t questions = 0;
    std::size_t connections = 0;
    bool goesFirst = false;
    bool isRefused = false;  // a call of this user was refused
  };
  struct Waiting {
    Kind kind;
    DBus::CallMessage call;
  };
  struct Connection {
    std::string user;      // the connection's own name until its user is known
    bool isNamed = false;  // takeUnknown() has returned this connection
    Turns lastTurn{};
    std::size_t questions = 0;
    std::list<Waiting> calls;
  };
  using Connections = std::map<std::string, Connection>;

  Connections::iterator first(Kind kind, bool onlyPrivileged);
  Connections::iterator choose();
  bool modestWaits() const;
  std::optional<DBus::CallMessage> take();
  Connection& connectionOf(const std::string& sender);
  void standBehind();
  void leaveUser(const Connection& connection);
  void erase(Connections::iterator connection);

  const unsigned long mOwnUser;
  Connections mConnections;              // key: unique name on the bus
  std::map<std::string, User> mUsers;    // key: user id, or unique name of a connection
  std::array<std::size_t, 2> mOfKind{};  // number of waiting calls of each kind
  std::size_t mWaiting = 0;
  std::size_t mUnnamed = 0;  // connections that takeUnknown() has not returned
  std::uint64_t mTurn = 0;
  unsigned mPlainServed = 0;
  bool mOnlyModest = false;  // true while a call of a modest user is chosen
  std::string mLastServed;   // the connection to put behind the other ones; may be empty
  Kind mLastKind = Kind::kPlain;
};
