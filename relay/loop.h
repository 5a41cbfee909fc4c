// Short names for the parts of Asio that the relay uses, a class for events, and one timeout check
// for many objects.
//
// Code that includes this header runs on the relay's thread, unless a comment names another thread.
// The compilation of Asio's headers is slow, so only files with asynchronous code include this
// header.
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

/// A one-time event: one coroutine waits for it, and other code on the loop triggers it.
class Event {
 public:
  explicit Event(asio::io_context& loop) : mTimer(loop) {}

  /// Waits until happen() is called, but for `limit` at most. @return whether the event has
  /// happened
  Task<bool> wait(Clock::duration limit) {
    if (mHappened) co_return true;
    ErrorCode error;
    mTimer.expires_after(limit);
    co_await mTimer.async_wait(asio::redirect_error(asio::use_awaitable, error));
    co_return mHappened;
  }
  /// Triggers the event. The waiting coroutine continues.
  void happen() {
    mHappened = true;
    mTimer.cancel();
  }

 private:
  asio::steady_timer mTimer;
  bool mHappened = false;
};

/// An object with a deadline. Sweeper checks the deadline once a second. An object has no timer of
/// its own, because there may be thousands of objects.
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
  /// Called each second after the deadline, until the object changes its deadline.
  virtual void expire() = 0;

 private:
  Clock::time_point mDeadline = Clock::time_point::max();
};

/// Checks the deadlines of all watched objects once a second. It runs no timer while there are no
/// objects.
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
