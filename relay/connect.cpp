#include "relay/connect.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <list>
#include <memory>

namespace relay {

namespace {

class Race : public std::enable_shared_from_this<Race> {
 public:
  Race(asio::io_context& loop, std::vector<Protocol::endpoint> addresses)
      : mLoop(loop), mAddresses(std::move(addresses)), mTimer(loop), mDone(loop) {}

  Event& begin() {
    startNext();
    return mDone;
  }

  Connected end(bool isDone) {
    if (!isDone) mResult.problem = "no connection within the time limit";
    mIsOver = true;
    mTimer.cancel();
    mSockets.clear();
    return std::move(mResult);
  }

 private:
  void startNext() {
    if (mIsOver || mNext == mAddresses.size()) return;
    const auto& address = mAddresses[mNext++];
    const auto socket = mSockets.emplace(mSockets.end(), mLoop);
    mRunning++;
    // The timer is set before the attempt, because an attempt that fails at once starts the next
    // attempt.
    mTimer.expires_after(kNextAddressAfter);
    mTimer.async_wait([self = shared_from_this()](const ErrorCode& error) {
      if (!error) self->startNext();
    });
    socket->async_connect(address, [self = shared_from_this(), socket](const ErrorCode& error) {
      self->attemptEnded(socket, error);
    });
  }

  void attemptEnded(std::list<Socket>::iterator socket, const ErrorCode& error) {
    if (mIsOver) return;
    mRunning--;
    if (!error) {
      const int on = 1;
      setsockopt(socket->native_handle(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
      mResult.socket.emplace(std::move(*socket));
      return over();
    }
    mResult.problem = error.message();
    mTimer.cancel();
    if (mNext == mAddresses.size() && mRunning == 0) return over();
    startNext();
  }

  void over() {
    mIsOver = true;
    mDone.happen();
  }

  asio::io_context& mLoop;
  const std::vector<Protocol::endpoint> mAddresses;
  asio::steady_timer mTimer;
  Event mDone;
  std::list<Socket> mSockets;
  std::size_t mNext = 0;
  std::size_t mRunning = 0;
  bool mIsOver = false;
  Connected mResult;
};

}  // namespace

Task<Connected> connectToOne(asio::io_context& loop, std::vector<Protocol::endpoint> addresses,
                             Clock::duration limit) {
  const auto race = std::make_shared<Race>(loop, std::move(addresses));
  const bool isDone = co_await race->begin().wait(limit);
  co_return race->end(isDone);
}

}  // namespace relay
