#include "relay/route.h"

#include <algorithm>

#include "base/ascii.h"
#include "base/log_line.h"
#include "base/visible.h"
#include "relay/connect.h"
#include "relay/tunnel_answer.h"

namespace relay {

namespace {

// GCC 12 destroys an aggregate twice if a co_await or co_return expression creates it. So
// coroutines create an aggregate in an earlier statement or in a function.

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
  if (!mPeer.isLocal && co_await leadsToThisDevice()) {
    co_return refusal(403, "this device's own addresses are not served to others\n");
  }
  Answer answer = co_await mContext.questions.ask(url, mPeer.user);
  if (answer.status == PROXYMANAGER_BAD_ARGUMENT) {
    // The URL may have bytes that the relay accepts in a request, but the daemon's interface does
    // not. In this case, the script gets the following URL.
    const bool isHttp = mWantsAbsoluteForm || mDestination.port == 80;
    const std::string whole = isHttp ? "http://" + mDestination.hostField(80) + "/"
                                     : "https://" + mDestination.hostField(443) + "/";
    answer = co_await mContext.questions.ask(whole, mPeer.user);
  }
  if (answer.status == PROXYMANAGER_BAD_ARGUMENT) {
    co_return refusal(400, "this host is not valid in a URL\n");
  }
  const bool isAnswered = answer.status == PROXYMANAGER_OK && !answer.entries.empty();
  mMode = answer.mode;
  if (isAnswered) {
    mContext.isNoAnswerLogged = false;
    mEntries = std::move(answer.entries);
    mContext.penalties.order(mEntries, mDestination.text());
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

/// Whether the destination is an address of this device or of its link, or a name of such an
/// address. begin() checks this for clients on other machines. A proxy on this device could also
/// connect to such an address. So the name is looked up even if the entry is a proxy. A name that
/// only a proxy can look up is accepted.
Task<bool> Route::leadsToThisDevice() {
  if (isLocalName(mDestination.host)) co_return true;
  std::string host = mDestination.host;
  // Some proxies read "192.0.2.1." as an address. No top-level domain ends with a digit.
  if (host.size() > 1 && host.ends_with('.') && base::isDigit(host[host.size() - 2])) {
    host.pop_back();
  }
  const auto found =
      co_await mContext.names.lookUp(std::move(host), mDestination.port,
                                     mContext.configured.configuration.connectTime, mPeer.user);
  co_return std::any_of(found.list.begin(), found.list.end(),
                        [](const auto& address) { return isOwnOrLinkLocal(address.data()); });
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
  const auto end = Clock::now() + mContext.configured.configuration.connectTime;
  if (entry.isDirect()) co_return co_await direct(entry, mDestination);
  const Destination proxy{entry.host, entry.port};
  auto connection = co_await direct(entry, proxy);
  if (!connection || (mWantsAbsoluteForm && entry.kind == PROXYMANAGER_HTTP)) co_return connection;
  const bool hasPassword = !mContext.credentialsFor(entry, mMode, mPeer).user.empty();
  if (entry.kind == PROXYMANAGER_HTTPS && (mWantsAbsoluteForm || !hasPassword)) {
    auto secured =
        co_await mContext.proxies.toHttpsProxy(entry, std::move(*connection), end - Clock::now());
    connection = take(entry, std::move(secured));
    if (!connection || mWantsAbsoluteForm) co_return connection;
  }
  if (entry.isHttp() && !hasPassword) {
    co_return co_await tunnel(entry, std::move(*connection), end);
  }
  co_return co_await handshake(entry, std::move(*connection), end);
}

/// Makes a tunnel through a SOCKS proxy, or through an HTTP proxy that gets a password.
Task<std::optional<Stream>> Route::handshake(const Entry& entry, Stream connection,
                                             Clock::time_point end) {
  const auto credentials = mContext.credentialsFor(entry, mMode, mPeer);
  Destination destination = mDestination;
  const bool looksUp = entry.kind == PROXYMANAGER_SOCKS4 || entry.kind == PROXYMANAGER_SOCKS5;
  if (looksUp && !co_await findAddress(entry, destination)) co_return std::nullopt;
  auto through = co_await mContext.proxies.tunnel(entry, std::move(connection), destination,
                                                  credentials, end - Clock::now());
  // "SOCKS" in a script has no version. If the proxy refuses version 5, version 4a (with a host
  // name) is tried.
  const bool isOpenVersion = entry.text.starts_with("SOCKS ");
  if (isOpenVersion && through.isVersionRefused) {
    Entry older = entry;
    older.kind = PROXYMANAGER_SOCKS4A;
    const Destination proxy{entry.host, entry.port};
    auto again = co_await direct(entry, proxy);
    if (!again) co_return std::nullopt;
    through = co_await mContext.proxies.tunnel(older, std::move(*again), destination, credentials,
                                               end - Clock::now());
  }
  co_return take(entry, std::move(through));
}

/// Replaces the name in `destination` by its address, for a proxy that does not look up names.
Task<bool> Route::findAddress(const Entry& entry, Destination& destination) {
  const auto found =
      co_await mContext.names.lookUp(destination.host, destination.port,
                                     mContext.configured.configuration.connectTime, mPeer.user);
  const auto usable = std::find_if(found.list.begin(), found.list.end(), [&](const auto& address) {
    return entry.kind == PROXYMANAGER_SOCKS5 || address.data()->sa_family == AF_INET;
  });
  if (usable == found.list.end()) {
    note(entry, found.list.empty() ? found.problem : "the destination has no IPv4 address");
    co_return false;
  }
  destination.host = addressText(*usable);
  co_return true;
}

/// Opens a tunnel through an HTTP proxy that gets no password.
Task<std::optional<Stream>> Route::tunnel(const Entry& entry, Stream connection,
                                          Clock::time_point end) {
  auto through =
      co_await askForTunnel(mContext.sweeper, connection, mDestination, mContext.name, end);
  mEarly = std::move(through.early);
  co_return take(entry, std::move(through));
}

std::optional<Stream> Route::take(const Entry& entry, ThroughProxy through) {
  switch (through.result) {
    case ProxyResult::kConnected:
      // For a request in absolute form, this was only the TLS handshake, which is not an answer.
      if (!mWantsAbsoluteForm || !entry.isHttp()) mContext.penalties.answered(entry);
      return std::move(through.stream);
    case ProxyResult::kNoAnswer:
      proxyDoubted(entry, through.problem);
      break;
    case ProxyResult::kProxyFailed:
      proxyFailed(entry, through.problem);
      break;
    case ProxyResult::kDestinationFailed:
      mContext.penalties.answered(entry);
      note(entry, through.problem);
      break;
    case ProxyResult::kRefused:
      mContext.penalties.answered(entry);
      note(entry, through.problem);
      // The relay does not forward a 407: the client did not choose this proxy, so the client has
      // no password for the proxy.
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
  auto addresses =
      co_await mContext.names.lookUp(destination.host, destination.port,
                                     mContext.configured.configuration.connectTime, mPeer.user);
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
  if (entry.isDirect() || mIsFinal || !addresses.wasAsked) {
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

void Route::proxyDoubted(const Entry& entry, const std::string& problem) {
  note(entry, problem);
  mContext.penalties.doubt(entry, mDestination.text(), base::visible(problem));
}

void Route::refuseAnswer(const Entry& entry, const std::string& problem) {
  note(entry, problem);
  mIsFinal = true;
}

void Route::closedEarly(const std::string& problem) {
  const auto& entry = mEntries[mNext - 1];
  if (entry.isHttp() && mWantsAbsoluteForm) {
    proxyDoubted(entry, problem);
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
