#include "relay/tunnel.h"

#include <array>

namespace relay {

namespace {

/// Number of buffers that a tunnel copies before other connections get their turn.
constexpr int kRounds = 8;

class Tunnel : public Watched, public std::enable_shared_from_this<Tunnel> {
 public:
  Tunnel(Stream client, Stream server, std::chrono::seconds idle, Slot slot)
      : mStreams{std::move(client), std::move(server)}, mIdle(idle), mSlot(std::move(slot)) {}

  void start(Sweeper& sweeper, std::string forServer, std::string forClient) {
    sweeper.add(*this);
    expireAfter(mIdle);
    mWays[0].waiting = std::move(forServer);
    mWays[1].waiting = std::move(forClient);
    for (unsigned way : {0U, 1U}) copy(way);
  }

  void expire() override { end(); }

 private:
  /// The direction from mStreams[way] to the other stream.
  struct Way {
    std::string waiting;  ///< bytes that the receiver has not accepted yet
    bool isAtEnd = false;
  };

  void end() {
    for (auto& stream : mStreams) stream.close();
    unlink();
  }

  Stream& from(unsigned way) { return mStreams[way]; }
  Stream& to(unsigned way) { return mStreams[1 - way]; }

  void copy(unsigned way) {
    for (int round = 0; round < kRounds; round++) {
      if (!flush(way)) return;
      auto& buffer = sharedBuffer();
      const auto got = from(way).tryRead(buffer.data(), buffer.size());
      if (got == Stream::kAgain) return wait(way, from(way), Socket::wait_read);
      if (got == Stream::kFailed) return end();
      if (got == 0) return endOf(way);
      expireAfter(mIdle);
      if (!forward(way, {buffer.data(), static_cast<std::size_t>(got)})) return;
    }
    asio::post(from(way).socket().get_executor(),
               [self = shared_from_this(), way] { self->copy(way); });
  }

  /// Sends `bytes` in one direction. @return whether all bytes were sent; if false, the tunnel
  /// waits or has ended
  bool forward(unsigned way, std::string_view bytes) {
    while (!bytes.empty()) {
      const auto put = to(way).tryWrite(bytes);
      if (put == Stream::kFailed) return end(), false;
      if (put == Stream::kAgain) {
        mWays[way].waiting = bytes;
        return wait(way, to(way), Socket::wait_write), false;
      }
      bytes.remove_prefix(static_cast<std::size_t>(put));
    }
    return true;
  }

  /// Forwards the waiting bytes of this direction. @return the same as forward()
  bool flush(unsigned way) {
    if (mWays[way].waiting.empty()) return true;
    std::string bytes;
    bytes.swap(mWays[way].waiting);
    expireAfter(mIdle);
    return forward(way, bytes);
  }

  void wait(unsigned way, Stream& stream, Socket::wait_type what) {
    stream.socket().async_wait(what, [self = shared_from_this(), way](const ErrorCode& error) {
      if (!error) self->copy(way);
    });
  }

  void endOf(unsigned way) {
    mWays[way].isAtEnd = true;
    // libcurl cannot close one direction of a TLS connection, so the tunnel ends both directions.
    if (mWays[1 - way].isAtEnd || to(way).isTls()) return end();
    to(way).shutdownWrite();
  }

  std::array<Stream, 2> mStreams;
  std::array<Way, 2> mWays;
  std::chrono::seconds mIdle;
  Slot mSlot;
};

}  // namespace

void startTunnel(Sweeper& sweeper, Stream client, Stream server, std::string forServer,
                 std::string forClient, std::chrono::seconds idle, Slot slot) {
  const auto tunnel =
      std::make_shared<Tunnel>(std::move(client), std::move(server), idle, std::move(slot));
  tunnel->start(sweeper, std::move(forServer), std::move(forClient));
}

}  // namespace relay
