#include "relay/route.h"

#include "base/log_line.h"
#include "base/visible.h"
#include "relay/connect.h"
#include "relay/tunnel_answer.h"

namespace relay {

namespace {

// GCC 12 destroys an aggregate twice if a co_await or co_return expression makes it. So coroutines
// make it in a statement before, or in a function.

constexpr char kOurselves[] = "this is the relay itself";

Refusal refusal(unsigned status, std::string text) {
  Refusal made;
  made.status = status;
  made.text = std::move(text);
  return made;
}

bool isLocalName(const std::string& host) {
  std::string_view name = host;
  if (name.ends_with('.')) name.remove_suffix(1);
  return name == "localhost" || name.ends_with(".localhost");
}

}  // namespace

Task<Refusal> Route::begin(const std::string& url) {
  Protocol::endpoint literal;
  if (!mPeer.isLocal) {
    const bool isAddress = readAddress(mDestination.host, mDestination.port, literal);
    if (isLocalName(mDestination.host) || (isAddress && isOwnOrLinkLocal(literal.data()))) {
      co_return refusal(403, "this device's own addresses are not served to others\n");
    }
  }
  Answer answer = co_await mContext.questions.ask(url, mPeer.user);
  const bool isAnswered = answer.status == PROXYMANAGER_OK && !answer.entries.empty();
  mMode = answer.mode;
  if (isAnswered) {
    mContext.isNoAnswerLogged = false;
    mEntries = std::move(answer.entries);
    mContext.penalties.order(mEntries);
    co_return refusal(0, {});
  }
  const bool isDirect = mContext.configured.configuration.whenNoAnswer == NoAnswer::kDirect;
  const char* const reason = answer.status == PROXYMANAGER_OK
                                 ? "it has no entry for a URL"
                                 : proxymanager_status_text(answer.status);
  if (!mContext.isNoAnswerLogged) {
    mContext.isNoAnswerLogged = true;
    logLine(LOG_WARNING, "relay: no answer of the daemon: %s; requests %s", reason,
            isDirect ? "go directly" : "are refused");
  }
  if (!isDirect) co_return refusal(503, std::string("no answer of the daemon: ") + reason + "\n");
  Entry direct;
  direct.text = "DIRECT";
  mEntries.push_back(direct);
  co_return refusal(0, {});
}

bool Route::isNext(const Entry& entry) const {
  return mNext == 0 && !mEntries.empty() && mEntries[0].name() == entry.name();
}

Task<std::optional<Upstream>> Route::next() {
  std::optional<Upstream> upstream;
  while (mNext < mEntries.size() && !mIsFinal) {
    const Entry entry = mEntries[mNext++];
    auto stream = co_await attempt(entry);
    if (stream) {
      upstream.emplace(std::move(*stream), entry, mWantsAbsoluteForm && entry.isHttp());
      upstream->early = std::move(mEarly);
      break;
    }
  }
  co_return upstream;
}

Task<std::optional<Stream>> Route::attempt(const Entry& entry) {
  const auto limit = mContext.configured.configuration.connectTime;
  if (entry.isDirect()) co_return co_await direct(entry, mDestination);
  if (mWantsAbsoluteForm && entry.kind == PROXYMANAGER_HTTP) {
    const Destination proxy{entry.host, entry.port};
    co_return co_await direct(entry, proxy);
  }
  if (mWantsAbsoluteForm && entry.kind == PROXYMANAGER_HTTPS) {
    auto connected = co_await mContext.proxies.toHttpsProxy(entry, limit);
    co_return take(entry, std::move(connected));
  }
  const auto credentials = mContext.credentialsFor(entry, mMode, mPeer);
  if (entry.kind == PROXYMANAGER_HTTP && credentials.user.empty()) co_return co_await tunnel(entry);
  auto through = co_await mContext.proxies.tunnel(entry, mDestination, credentials, limit);
  // "SOCKS" in a script names no version. If version 5 fails, such a proxy runs version 4 with a
  // name.
  const bool isOpenVersion = entry.text.starts_with("SOCKS ");
  if (through.result == ProxyResult::kProxyFailed && isOpenVersion && through.isVersionRefused) {
    Entry older = entry;
    older.kind = PROXYMANAGER_SOCKS4A;
    through = co_await mContext.proxies.tunnel(older, mDestination, credentials, limit);
  }
  co_return take(entry, std::move(through));
}

/// Makes a tunnel through an HTTP proxy that gets no password.
Task<std::optional<Stream>> Route::tunnel(const Entry& entry) {
  const auto end = Clock::now() + mContext.configured.configuration.connectTime;
  const Destination proxy{entry.host, entry.port};
  auto stream = co_await direct(entry, proxy);
  if (!stream) co_return stream;
  auto through = co_await askForTunnel(mContext.sweeper, *stream, mDestination, mContext.name, end);
  mEarly = std::move(through.early);
  co_return take(entry, std::move(through));
}

std::optional<Stream> Route::take(const Entry& entry, ThroughProxy through) {
  switch (through.result) {
    case ProxyResult::kConnected:
      return std::move(through.stream);
    case ProxyResult::kOurselves:
      mStatus = 508;
      mIsFinal = true;
      note(entry, kOurselves);
      break;
    case ProxyResult::kProxyFailed:
      proxyFailed(entry, through.problem);
      break;
    case ProxyResult::kDestinationFailed:
      note(entry, through.problem);
      break;
    case ProxyResult::kRefused:
      note(entry, through.problem);
      // The client cannot authenticate to this proxy, because it does not know about it.
      if (through.status == 407) break;
      mStatus = through.status >= 400 && through.status <= 599 ? through.status : 502;
      mIsFinal = true;
      break;
  }
  return std::nullopt;
}

std::string Route::refusedAddress(const sockaddr* address, const Entry& entry) {
  if (mContext.isOurs(address)) {
    mStatus = 508;
    mIsFinal = true;
    return kOurselves;
  }
  if (mPeer.isLocal || !entry.isDirect() || !isOwnOrLinkLocal(address)) return {};
  mStatus = 403;
  mIsFinal = true;
  return "this device's own addresses are not served to others";
}

Task<std::optional<Stream>> Route::direct(const Entry& entry, const Destination& destination) {
  const auto end = Clock::now() + mContext.configured.configuration.connectTime;
  auto addresses = co_await mContext.names.lookUp(destination.host, destination.port,
                                                  mContext.configured.configuration.connectTime);
  std::string problem = addresses.problem;
  std::optional<Stream> stream;
  for (const auto& address : addresses.list) {
    problem = refusedAddress(address.data(), entry);
    if (!problem.empty()) break;
  }
  if (problem.empty()) {
    auto connected =
        co_await connectToOne(mContext.loop, std::move(addresses.list), end - Clock::now());
    if (connected.socket) {
      stream.emplace(std::move(*connected.socket));
      co_return stream;
    }
    problem = std::move(connected.problem);
  }
  if (entry.isDirect() || mIsFinal) {
    note(entry, problem);
  } else {
    proxyFailed(entry, problem);
  }
  co_return stream;
}

void Route::note(const Entry& entry, const std::string& problem) {
  mLines += entry.name() + ": " + base::visible(problem) + "\n";
}

void Route::proxyFailed(const Entry& entry, const std::string& problem) {
  note(entry, problem);
  mContext.penalties.add(entry, base::visible(problem));
}

void Route::closedEarly(const std::string& problem) {
  const auto& entry = mEntries[mNext - 1];
  if (entry.isHttp() && mWantsAbsoluteForm) {
    proxyFailed(entry, problem);
  } else {
    note(entry, problem);
  }
}

void Route::again() {
  mNext--;
}

void Route::wantsAuthentication() {
  note(mEntries[mNext - 1], "the proxy wants authentication that the relay does not have");
}

Refusal Route::failure() const {
  return {mStatus, mLines};
}

}  // namespace relay
