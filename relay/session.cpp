#include "relay/session.h"

#include <poll.h>

#include <algorithm>

#include "base/log_line.h"
#include "base/visible.h"
#include "relay/pages.h"

namespace relay {

Session::Session(Context& context, Stream client, const Peer& peer, bool isRefused, Slot slot)
    : mContext(context),
      mClient(std::move(client)),
      mPeer(peer),
      mIsRefused(isRefused),
      mSlot(std::move(slot)) {}

void Session::start() {
  expireAfter(mContext.configured.configuration.headTime);
  mContext.sweeper.add(*this);
  asio::co_spawn(mContext.loop, run(shared_from_this()), asio::detached);
}

/// Starts the idle time again. Called for each transfer of bytes.
void Session::keepAlive() {
  const auto now = Clock::now();
  mIsServing = true;
  mEnd = now + mContext.configured.configuration.idleTime;
  expireAt(std::min(mEnd, now + kClientCheck));
}

/// Whether the client no longer waits for an answer. A client may half-close the connection and
/// still wait. On this machine, the socket of such a client still has an owner. A client on another
/// machine that half-closes counts as gone, as with other proxies.
bool Session::isClientGone() {
  const int fd = mClient.socket().native_handle();
  pollfd state{fd, POLLRDHUP, 0};
  if (!mClient.isOpen() || poll(&state, 1, 0) <= 0) return false;
  return (state.revents & (POLLHUP | POLLERR)) != 0 || !mContext.peers.of(fd).isKnown();
}

/// Closes the session's connections after the time limit, or if the client is gone. The session's
/// coroutine waits for the sockets of these connections, so the coroutine then ends.
void Session::expire() {
  const auto now = Clock::now();
  if (mIsServing && now < mEnd && !isClientGone()) {
    return expireAt(std::min(mEnd, now + kClientCheck));
  }
  expireNever();
  if (mServer) mServer->stream.close();
  mClient.close();
}

Task<void> Session::run(std::shared_ptr<Session> self) {
  if (!co_await self->readMore()) co_return;
  const auto first = static_cast<unsigned char>(self->mIn.front());
  if (first == 4 || first == 5) {
    co_await self->serveSocks(first);
  } else {
    co_await self->serveHttp();
  }
}

Task<void> Session::serveHttp() {
  auto next = Next::kKeep;
  while (next == Next::kKeep) {
    const std::string head = co_await readHead();
    if (head.empty()) co_return;
    next = co_await serve(head);
    if (next == Next::kHandedOver) co_return;
    mIsInRequest = mIsServing = false;
    if (mIn.empty()) std::string().swap(mIn);
    expireAfter(mContext.configured.configuration.keptTime);
    if (isTurnOver()) co_await asio::post(mContext.loop, asio::use_awaitable);
  }
  // Unread bytes would end the connection with a reset, and the answer could be lost.
  mClient.shutdownWrite();
  expireAfter(std::chrono::seconds{2});
  for (bool isOpen = true; isOpen;) {
    mIn.clear();
    isOpen = co_await readMore();
  }
}

/// Reads bytes from the client. @return whether bytes were added to mIn
Task<bool> Session::readMore() {
  if (isTurnOver()) co_await asio::post(mContext.loop, asio::use_awaitable);
  while (true) {
    auto& buffer = sharedBuffer();
    const auto got = mClient.tryRead(buffer.data(), buffer.size());
    if (got > 0) {
      mIn.append(buffer.data(), static_cast<std::size_t>(got));
      co_return true;
    }
    mRounds = 0;
    if (got != Stream::kAgain || !co_await mClient.waitRead()) co_return false;
  }
}

/// Removes the next whole head from mIn. @return the head; empty if the connection must end
Task<std::string> Session::readHead() {
  std::size_t searched = 0;
  while (true) {
    // Old clients send an empty line after a body.
    if (searched == 0 && mIn.starts_with("\r\n")) mIn.erase(0, 2);
    if (!mIn.empty() && !mIsInRequest) {
      mIsInRequest = true;
      expireAfter(mContext.configured.configuration.headTime);
    }
    const auto length = headLength(std::string_view(mIn).substr(0, kMaxHeadBytes), searched);
    if (length != 0) {
      std::string head = mIn.substr(0, length);
      mIn.erase(0, length);
      co_return head;
    }
    if (mIn.size() >= kMaxHeadBytes) {
      co_await respond(431, "the head of the request is longer than 65536 bytes\n");
      co_return std::string();
    }
    searched = mIn.size();
    if (!co_await readMore()) co_return std::string();
  }
}

Task<Session::Next> Session::respond(unsigned status, std::string text) {
  co_await mClient.write(ownResponse(status, "proxymanager-relay: " + text, false, !mIsHead));
  co_return Next::kClose;
}

Task<Session::Next> Session::serve(const std::string& head) {
  RequestHead request;
  const auto problem = readRequestHead(head, request);
  mIsHead = request.method == "HEAD";
  if (problem.status != 0) {
    mContext.counters.malformed++;
    co_return co_await respond(problem.status, std::string(problem.text) + "\n");
  }
  if (mIsRefused) co_return co_await respond(403, "you may not use this relay\n");
  if (wentThrough(request.fields, mContext.name)) {
    co_return co_await respond(508, "the request has come through this relay before\n");
  }
  keepAlive();
  if (request.method == "CONNECT") co_return co_await connect(request);
  if (request.target.front() == '/') co_return co_await ownPage(request);
  co_return co_await forward(request);
}

Task<Session::Next> Session::ownPage(const RequestHead& request) {
  auto page = co_await pageFor(mContext, request, mPeer);
  const bool isKept = keepsConnection(request.fields, request.isHttp11) && request.isHttp11 &&
                      request.body.kind == BodyKind::kNone;
  if (!isKept) page.insert(page.find("\r\n") + 2, "Connection: close\r\n");
  const bool isSent = co_await mClient.write(page);
  co_return isSent&& isKept ? Next::kKeep : Next::kClose;
}

void Session::decide(const std::string& destination, const std::string& entry, bool isGood) {
  mContext.decisions.add({std::time(nullptr), mPeer.user, destination, entry, isGood});
}

void Session::logFailure(const Destination& destination, const Refusal& failure) {
  mContext.counters.failed++;
  std::string reasons = failure.text;
  while (reasons.ends_with('\n')) reasons.pop_back();
  std::replace(reasons.begin(), reasons.end(), '\n', ';');
  decide(destination.text(), reasons, false);
  logLine(LOG_WARNING, "relay: no way to %s: %s", destination.text().c_str(), reasons.c_str());
}

bool Session::isPortAllowed(std::uint16_t port) const {
  const auto& ports = mContext.configured.configuration.allowPorts;
  return ports.empty() || std::any_of(ports.begin(), ports.end(), [&](const PortRange& range) {
           return port >= range.first && port <= range.last;
         });
}

}  // namespace relay
