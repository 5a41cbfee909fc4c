#include "relay/relay.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <boost/asio/signal_set.hpp>
#include <csignal>
#include <map>

#include "base/log_line.h"
#include "relay/context.h"
#include "relay/rewrite.h"
#include "relay/session.h"

namespace relay {

namespace {

Protocol::endpoint addressOf(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return {&address, length};
}

std::vector<Protocol::endpoint> addressesOf(const std::vector<base::UniqueFd>& sockets) {
  std::vector<Protocol::endpoint> addresses;
  for (const auto& socket : sockets) addresses.push_back(addressOf(socket.get()));
  return addresses;
}

/// Accepts the connections of one listening socket, within the connection limits.
class Acceptor {
 public:
  Acceptor(Context& context, std::map<uid_t, unsigned>& ofUsers, base::UniqueFd fd)
      : mContext(context), mOfUsers(ofUsers), mRetry(context.loop), mSocket(context.loop) {
    const auto family = addressOf(fd.get()).data()->sa_family;
    mSocket.assign(Protocol(family, 0), fd.release());
    wait();
  }

 private:
  /// Pause if no connection can be accepted, for example because no descriptor is free.
  static constexpr std::chrono::milliseconds kPause{100};
  /// Maximum number of connections that are accepted in one turn, before other work continues.
  static constexpr int kBurst = 64;

  void wait() {
    mSocket.async_wait(Socket::wait_read, [this](const ErrorCode& error) {
      if (!error) takeAll();
    });
  }

  void takeAll() {
    for (int taken = 0; taken < kBurst; taken++) {
      base::UniqueFd fd(
          accept4(mSocket.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (fd) {
        take(std::move(fd));
        continue;
      }
      if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) return pause();
      if (errno == EAGAIN) break;
    }
    wait();
  }

  void pause() {
    mRetry.expires_after(kPause);
    mRetry.async_wait([this](const ErrorCode& error) {
      if (!error) takeAll();
    });
  }

  void take(base::UniqueFd fd) {
    mContext.counters.connections++;
    const auto peer = mContext.peers.of(fd.get());
    if (peer.isGone) return;
    if (!peer.isAllowed) {
      mContext.counters.refused++;
      return;
    }
    const auto& configuration = mContext.configured.configuration;
    auto& ofUser = mOfUsers[peer.user];
    if (mContext.counters.open >= configuration.maxConnections ||
        ofUser >= configuration.maxConnectionsOfUser) {
      mContext.counters.refused++;
      return refuse(fd.get());
    }
    mContext.counters.open++;
    ofUser++;
    const bool isListed = peer.isKnown() && mContext.allowed.has(peer.user);
    const bool isDenied =
        !mContext.denied.isEmpty() && (!peer.isKnown() || mContext.denied.has(peer.user));
    const bool isRefused = isDenied || (!mContext.allowed.isEmpty() && !isListed);
    if (isRefused) mContext.counters.refused++;
    Socket socket(mContext.loop);
    const auto family = addressOf(fd.get()).data()->sa_family;
    // A head and its body are two writes. Without this option, the second write waits until the
    // other end has confirmed the first.
    const int on = 1;
    if (family != AF_UNIX) setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    socket.assign(Protocol(family, 0), fd.release());
    auto release = [this, user = peer.user] {
      mContext.counters.open--;
      const auto count = mOfUsers.find(user);
      if (--count->second == 0) mOfUsers.erase(count);
    };
    std::make_shared<Session>(mContext, Stream(std::move(socket)), peer, isRefused,
                              Slot(std::move(release)))
        ->start();
  }

  /// Answers 503. Then reads the bytes that the client has sent: unread bytes would cause a reset,
  /// and the answer could be lost. If the client has sent more than kBufferBytes, it gets the
  /// reset.
  void refuse(int fd) {
    char bytes[4096];
    static const std::string kAnswer =
        ownResponse(503, "proxymanager-relay: too many connections\n");
    send(fd, kAnswer.data(), kAnswer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    for (std::size_t taken = 0; taken < kBufferBytes; taken += sizeof(bytes)) {
      if (recv(fd, bytes, sizeof(bytes), MSG_DONTWAIT) <= 0) break;
    }
  }

  Context& mContext;
  std::map<uid_t, unsigned>& mOfUsers;
  asio::steady_timer mRetry;
  Socket mSocket;
};

void unblockEndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : kEndSignals) sigaddset(&signals, signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace

int run(const Configured& configured, std::vector<base::UniqueFd> listeners) {
  // The loop is never destroyed, because a lookup or one of the last connections may end at any
  // time.
  auto& loop = *new asio::io_context(1);
  auto& context = *new Context(loop, configured, addressesOf(listeners));
  auto& ofUsers = *new std::map<uid_t, unsigned>;
  for (auto& listener : listeners) new Acceptor(context, ofUsers, std::move(listener));
  std::signal(SIGPIPE, SIG_IGN);
  asio::signal_set signals(loop);
  for (const int signal : kEndSignals) signals.add(signal);
  signals.async_wait([&](const ErrorCode&, int) { loop.stop(); });
  unblockEndSignals();
  sd_notify(0, "READY=1");
  loop.run();
  sd_notify(0, "STOPPING=1");
  // Lookups may still run on their threads, so the objects that they use must not be destroyed. A
  // leak checker could not check this process anyway, because the process runs as nobody and is not
  // dumpable.
  _exit(0);
}

}  // namespace relay
