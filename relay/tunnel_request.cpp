// CONNECT and SOCKS: requests for a tunnel.
#include "base/log_line.h"
#include "relay/session.h"
#include "relay/socks.h"
#include "relay/tunnel.h"

namespace relay {

namespace {

/// The URL for the question to the daemon. Browsers use the same form for tunnels.
std::string urlOf(const Destination& destination) {
  if (destination.port == 80) return "http://" + destination.hostField(80) + "/";
  return "https://" + destination.hostField(443) + "/";
}

SocksResult socksResultOf(const Refusal& refusal) {
  if (refusal.status == 403) return SocksResult::kNotAllowed;
  return refusal.status >= 502 && refusal.status <= 504 ? SocksResult::kHostUnreachable
                                                        : SocksResult::kFailed;
}

}  // namespace

Task<std::optional<Upstream>> Session::openTunnel(const Destination& destination,
                                                  const std::string& url, Refusal& refusal) {
  if (!isPortAllowed(destination.port)) {
    refusal = {403, "tunnels to port " + std::to_string(destination.port) + " are not allowed\n"};
    co_return std::nullopt;
  }
  Route route(mContext, destination, false, mPeer);
  refusal = co_await route.begin(url);
  if (refusal.status != 0) {
    logFailure(destination, refusal);
    co_return std::nullopt;
  }
  auto upstream = co_await route.next();
  if (!upstream) {
    refusal = route.failure();
    logFailure(destination, refusal);
    co_return std::nullopt;
  }
  mContext.counters.tunnels++;
  decide(destination.text(), upstream->entry.name(), true);
  if (mContext.configured.configuration.logRequests) {
    logLine(LOG_INFO, "relay: tunnel to %s by %s", destination.text().c_str(),
            upstream->entry.name().c_str());
  }
  co_return upstream;
}

Task<Session::Next> Session::connect(const RequestHead& request) {
  const auto destination = readAuthority(request.target, 0);
  // Some clients send CONNECT with a Content-Length of 0, which means that there is no body.
  const bool hasBody = request.body.kind == BodyKind::kChunked || request.body.length != 0;
  if (!destination || hasBody) {
    mContext.counters.malformed++;
    co_return co_await respond(400, "CONNECT wants host:port, and has no body\n");
  }
  Refusal refusal;
  auto upstream = co_await openTunnel(*destination, urlOf(*destination), refusal);
  if (!upstream) co_return co_await respond(refusal.status, refusal.text);
  if (!co_await mClient.write("HTTP/1.1 200 Connection established\r\n\r\n")) {
    co_return Next::kClose;
  }
  handOver(std::move(upstream->stream), std::move(upstream->early));
  co_return Next::kHandedOver;
}

void Session::handOver(Stream server, std::string forClient) {
  unlink();
  startTunnel(mContext.sweeper, std::move(mClient), std::move(server), std::move(mIn),
              std::move(forClient), mContext.configured.configuration.idleTime, std::move(mSlot));
}

/// @return the destination that the client asks for; nothing if the relay refused it
Task<std::optional<Destination>> Session::socksDestination(int version) {
  bool isGreeted = version == 4;
  while (true) {
    SocksStep step = version == 4 ? readSocks4Request(mIn)
                     : isGreeted  ? readSocks5Request(mIn)
                                  : readSocks5Greeting(mIn);
    if (step.state == SocksState::kMore && mIn.size() > kMaxSocksRequest) {
      step = {SocksState::kRefused, 0, socksReply(version, SocksResult::kFailed), {}};
    }
    if (!step.reply.empty() && !co_await mClient.write(step.reply)) co_return std::nullopt;
    mIn.erase(0, step.taken);
    if (step.state == SocksState::kRefused) {
      mContext.counters.malformed++;
      co_return std::nullopt;
    }
    if (step.state == SocksState::kDone && isGreeted) co_return step.destination;
    if (step.state == SocksState::kDone) {
      isGreeted = true;
    } else if (!co_await readMore()) {
      co_return std::nullopt;
    }
  }
}

Task<void> Session::serveSocks(int version) {
  const auto destination = co_await socksDestination(version);
  if (!destination) co_return;
  keepAlive();
  Refusal refusal{403, "you may not use this relay\n"};
  std::optional<Upstream> upstream;
  if (!mIsRefused) upstream = co_await openTunnel(*destination, urlOf(*destination), refusal);
  const auto result = upstream ? SocksResult::kConnected : socksResultOf(refusal);
  const bool isSent = co_await mClient.write(socksReply(version, result));
  if (upstream && isSent) handOver(std::move(upstream->stream), std::move(upstream->early));
}

}  // namespace relay
