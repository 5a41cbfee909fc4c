#include "client/ctl/daemon/daemon_answers.h"

#include "client/ctl/daemon/bus_failure.h"
#include "client/library/bus_address.h"

namespace client {

namespace {

constexpr CallNature kAsk{"ask", false};

ProxyKind kindOf(proxymanager::Kind kind) {
  switch (kind) {
    case proxymanager::Kind::direct:
      return ProxyKind::kDirect;
    case proxymanager::Kind::http:
      return ProxyKind::kHttp;
    case proxymanager::Kind::https:
      return ProxyKind::kHttps;
    case proxymanager::Kind::socks4:
      return ProxyKind::kSocks4;
    case proxymanager::Kind::socks4a:
      return ProxyKind::kSocks4a;
    case proxymanager::Kind::socks5:
      return ProxyKind::kSocks5;
    case proxymanager::Kind::socks5h:
      return ProxyKind::kSocks5h;
    case proxymanager::Kind::unusable:
      break;
  }
  return ProxyKind::kUnusable;
}

Failure failureOf(proxymanager::Status status, std::chrono::microseconds limit) {
  const auto failure = proxymanager::lastFailure();
  if (failure.error != 0) return failedConnection(systemBusAddress(), failure.error);
  if (!failure.name.empty()) return failedCall(kAsk, failure.name, failure.text, limit);
  switch (status) {
    case proxymanager::Status::tooSlow:
      return failedCall(kAsk, kGivenUp, "", limit);
    case proxymanager::Status::noDaemon:
      return endingDaemon();
    default:
      return {kInternal, proxymanager::text(status)};
  }
}

}  // namespace

ProxyAnswer DaemonAnswers::ask(const std::string& url) const {
  const auto given = mClient.get(url, mLimit);
  if (!given) throw failureOf(given.status(), mLimit);
  ProxyAnswer answer;
  answer.mode = given.mode();
  for (const auto& entry : given.entries()) {
    answer.entries.push_back({kindOf(entry.kind), std::string(entry.text),
                              std::string(entry.credentials), std::string(entry.host), entry.port});
  }
  return answer;
}

}  // namespace client
