// What the relay takes from Asio, under names of its own, and two small things built on it.
//
// Everything that includes this header runs on the relay's one thread, unless it says otherwise.
// Asio's headers are slow to compile: only files that wait for something include this one.
#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/intrusive/list.hpp>
#include <chrono>

namespace relay {

namespace asio = boost::asio;

using Clock = std::chrono::steady_clock;
using ErrorCode = boost::system::error_code;
using Protocol = asio::generic::stream_protocol;
using Socket = Protocol::socket;
template <typename Value>
using Task = asio::awaitable<Value>;

/// What a coroutine waits for and other code on the loop makes happen, once.
class Event {
 public:
  explicit Event(asio::io_context& loop) : mTimer(loop) {}

  /// @return whether it happened within `limit`
  Task<bool> wait(Clock::duration limit) {
    if (mHappened) co_return true;
    ErrorCode error;
    mTimer.expires_after(limit);
    co_await mTimer.async_wait(asio::redirect_error(asio::use_awaitable, error));
    co_return mHappened;
  }
  void happen() {
    mHappened = true;
    mTimer.cancel();
  }

 private:
  asio::steady_timer mTimer;
  bool mHappened = false;
};

/// Something with a deadline that Sweeper looks at. Coarse, and without a timer of its own: there
/// may be thousands.
class Watched : public boost::intrusive::list_base_hook<
                    boost::intrusive::link_mode<boost::intrusive::auto_unlink>> {
 public:
  Watched() = default;
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;
  virtual ~Watched() = default;

  void expireAfter(Clock::duration time) { mDeadline = Clock::now() + time; }
  void expireAt(Clock::time_point time) { mDeadline = time; }
  void expireNever() { mDeadline = Clock::time_point::max(); }
  Clock::time_point deadline() const { return mDeadline; }
  /// The deadline is over; the sweeper calls this once, and again each second until it is changed.
  virtual void expire() = 0;

 private:
  Clock::time_point mDeadline = Clock::time_point::max();
};

/// Looks at all watched things each second, while there are any.
class Sweeper {
 public:
  static constexpr std::chrono::seconds kPause{1};

  explicit Sweeper(asio::io_context& loop) : mTimer(loop) {}
  void add(Watched& watched);

 private:
  using List = boost::intrusive::list<Watched, boost::intrusive::constant_time_size<false>>;
  void arm();
  void sweep();

  asio::steady_timer mTimer;
  List mList;
  bool mIsArmed = false;
};

}  // namespace relay
