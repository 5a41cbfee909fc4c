// Requests in absolute form: the relay forwards them to the server or to an HTTP proxy, and returns
// the answers.
#include <array>
#include <boost/asio/experimental/awaitable_operators.hpp>

#include "base/ascii.h"
#include "base/log_line.h"
#include "relay/session.h"
#include "relay/tunnel.h"

namespace relay {

namespace {

/// A time longer than any request, for a wait that only another event ends.
constexpr Clock::duration kForever = std::chrono::hours{24 * 365};

/// Whether a request may be repeated if its connection ended without an answer (RFC 9110, 9.2.2).
bool isRepeatable(std::string_view method) {
  static constexpr std::array<std::string_view, 6> kMethods = {"GET",   "HEAD", "OPTIONS",
                                                               "TRACE", "PUT",  "DELETE"};
  for (const auto one : kMethods) {
    if (method == one) return true;
  }
  return false;
}

/// The target of the request as an HTTP proxy gets it.
std::string targetFor(const RequestHead& request, const Route& route) {
  const auto target = readHttpTarget(request.target);
  std::string text = "http://" + route.destination().hostField(80);
  if (!target || target->path.empty() || target->path.front() == '?') text += '/';
  return target ? text.append(target->path) : text;
}

bool isUpgrade(const RequestHead& request) {
  return request.isHttp11 && request.fields.hasWord("Connection", "Upgrade") &&
         request.fields.has("Upgrade") && request.body.kind == BodyKind::kNone;
}

}  // namespace

Task<Session::Next> Session::forward(const RequestHead& request) {
  const auto target = readHttpTarget(request.target);
  if (!target) {
    mContext.counters.malformed++;
    co_return co_await respond(400, "the target is no http URL; https wants CONNECT\n");
  }
  if (request.method == "TRACE" || request.method == "OPTIONS") {
    if (request.fields.find("Max-Forwards") == "0")
      co_return co_await respond(501, "Max-Forwards\n");
  }
  const auto& destination = target->destination;
  Route route(mContext, destination, true, mPeer);
  const auto refusal = co_await route.begin(std::string(request.target));
  if (refusal.status != 0) {
    logFailure(destination, refusal);
    co_return co_await respond(refusal.status, refusal.text);
  }
  switch (co_await exchange(request, *target, route)) {
    case Exchange::kKeep:
      co_return Next::kKeep;
    case Exchange::kHandedOver:
      co_return Next::kHandedOver;
    case Exchange::kClose:
      co_return Next::kClose;
    default:
      break;
  }
  const auto failure = route.failure();
  logFailure(destination, failure);
  co_return co_await respond(failure.status, failure.text);
}

/// Whether `exchange` means that the client got nothing from the upstream.
bool Session::isWithoutAnswer(Exchange exchange) {
  return exchange == Exchange::kNoAnswer || exchange == Exchange::kRefusedAnswer ||
         exchange == Exchange::kAuthentication || exchange == Exchange::kAgain;
}

/// Tries one upstream after the other until one answers.
Task<Session::Exchange> Session::exchange(const RequestHead& request, const HttpTarget& target,
                                          Route& route) {
  mIsBodyStarted = false;
  const bool canReuse =
      mServer && mServer->stream.isOpen() && route.isNext(mServer->entry) &&
      (mServer->isAbsoluteForm || mServerDestination == target.destination.text()) &&
      mServer->stream.isQuiet();
  if (!canReuse) mServer.reset();
  mIsReused = canReuse;
  mIsExpectRefused = false;
  mFresh.reset();
  while (true) {
    if (!mServer) {
      mServer = co_await route.next();
      if (!mClient.isOpen()) co_return Exchange::kClose;
      mServerDestination = target.destination.text();
      mServerIn.clear();
      if (!mServer) co_return Exchange::kNoAnswer;
    }
    const auto result = co_await exchangeOnce(request, target, route);
    if (!isWithoutAnswer(result)) co_return result;
    const bool wasReused = mIsReused;
    mIsReused = false;
    const Entry entry = mServer->entry;
    mServer.reset();
    if (!mClient.isOpen()) co_return Exchange::kClose;
    if (result == Exchange::kRefusedAnswer) {
      route.refuseAnswer(entry, std::string("the relay refused the answer: ") + mAnswerProblem);
      co_return Exchange::kNoAnswer;
    }
    if (result == Exchange::kAgain) {
      if (!wasReused) route.again();
      continue;
    }
    mFresh.reset();
    // A kept connection may have ended before this request. This does not mean that its proxy has
    // failed.
    if (wasReused && result == Exchange::kNoAnswer && !mIsBodyStarted &&
        isRepeatable(request.method)) {
      continue;
    }
    if (result == Exchange::kAuthentication) {
      route.wantsAuthentication();
    } else if (!wasReused) {
      const bool isEnd = mAnswerProblem[0] == '\0';
      route.closedEarly(isEnd ? "the connection ended before an answer" : mAnswerProblem);
    } else {
      route.note(entry, "the kept connection ended, and this request must not be repeated");
    }
    // A proxy that answers 407 has not processed the request.
    const bool mayRepeat = result == Exchange::kAuthentication || isRepeatable(request.method);
    if (mIsBodyStarted || !mayRepeat) co_return Exchange::kNoAnswer;
  }
}

Task<Session::Exchange> Session::exchangeOnce(const RequestHead& request, const HttpTarget& target,
                                              Route& route) {
  using namespace asio::experimental::awaitable_operators;
  RequestForm form;
  form.destination = &target.destination;
  form.path = target.path;
  form.isAbsolute = mServer->isAbsoluteForm;
  form.isUpgrade = isUpgrade(request);
  form.via = mContext.name;
  const auto password = authorization(request, route);
  form.authorization = password;
  mHasServerByte = false;
  mAnswerProblem = "";
  mIsAnswerHttp = false;
  mContinue.reset();
  if (mayWantPassword(request, route)) mContinue.emplace(mContext.loop);
  form.expectsContinue = mContinue.has_value();
  const std::string head = requestFor(request, form);
  if (!co_await mServer->stream.write(head)) co_return Exchange::kNoAnswer;
  mIsBodySent = request.body.kind == BodyKind::kNone;
  if (mIsBodySent) co_return co_await answer(request, route);
  const auto result = co_await (answer(request, route) || sendBody(request));
  co_return result.index() == 0 ? std::get<0>(result) : Exchange::kClose;
}

/// If the proxy may first require a password, waits until the proxy accepts the body.
/// @return false if the body must not be sent: the answer has begun, or this wait was cancelled
Task<bool> Session::mayBodyLeave() {
  if (!mContinue || co_await mContinue->wait(kAnswerBeforeBody)) co_return true;
  const auto cancellation = co_await asio::this_coro::cancellation_state;
  co_return cancellation.cancelled() == asio::cancellation_type::none && !mHasServerByte;
}

/// Sends the request's body, and then waits until the caller cancels this coroutine, which happens
/// when the answer is complete. The coroutine ends by itself only if the client's connection has
/// ended, the server's connection is gone, or the body is broken.
Task<void> Session::sendBody(const RequestHead& request) {
  BodyReader body(request.body);
  std::string out;
  const bool mayLeave = co_await mayBodyLeave();
  bool isSent = true;
  while (mayLeave && isSent && !body.isComplete()) {
    if (mIn.empty() && !co_await readMore()) co_return;
    out.clear();
    const auto taken = body.take(mIn, out);
    mIn.erase(0, taken);
    if (body.problem()[0] != '\0') {
      mContext.counters.malformed++;
      if (!mHasServerByte) co_await respond(400, std::string(body.problem()) + "\n");
      co_return;
    }
    keepAlive();
    if (out.empty()) continue;
    // If mServer is empty, the answer is already complete: the server sent it before this body
    // began.
    if (!mServer) co_return;
    mIsBodyStarted = true;
    // If this write fails, the server can still answer: see below.
    isSent = co_await mServer->stream.write(out);
  }
  mIsBodySent = isSent && body.isComplete();
  std::string().swap(out);
  // If the write has failed, the connection has ended. answer() then reads the bytes that the
  // server sent before the end. The result of answer() cancels this wait.
  Event never(mContext.loop);
  co_await never.wait(kForever);
}

/// The result if there is no response head that the relay can forward. A proxy may forward a wrong
/// answer of a server. So the failure counts as a failure of the proxy only if the answer is not
/// HTTP.
Session::Exchange Session::withoutAnswer() const {
  return mIsAnswerHttp ? Exchange::kRefusedAnswer : Exchange::kNoAnswer;
}

/// Reads the next response head. @return false if there is none, or if the relay does not accept it
Task<bool> Session::readResponse(const RequestHead& request, std::string& head,
                                 ResponseHead& response) {
  std::size_t searched = 0;
  while (true) {
    const auto length = headLength(std::string_view(mServerIn).substr(0, kMaxHeadBytes), searched);
    if (length != 0) {
      head = mServerIn.substr(0, length);
      mServerIn.erase(0, length);
      response = ResponseHead();
      const auto problem = readResponseHead(head, request.method, response);
      mAnswerProblem = problem.text;
      mIsAnswerHttp = head.starts_with("HTTP/1.");
      co_return problem.status == 0;
    }
    if (mServerIn.size() >= kMaxHeadBytes) {
      mAnswerProblem = "its head is longer than 65536 bytes";
      mIsAnswerHttp = mServerIn.starts_with("HTTP/1.");
      co_return false;
    }
    searched = mServerIn.size();
    auto& buffer = sharedBuffer();
    const auto got = mServer->stream.tryRead(buffer.data(), buffer.size());
    if (got > 0) {
      mHasServerByte = true;
      mServerIn.append(buffer.data(), static_cast<std::size_t>(got));
    } else if (got != Stream::kAgain || !co_await mServer->stream.waitRead()) {
      co_return false;
    }
  }
}

/// The value of Proxy-Authorization for mServer. Empty if the challenge of mServer is not known.
std::string Session::authorization(const RequestHead& request, const Route& route) {
  if (!mServer->isAbsoluteForm) return {};
  const auto known = mContext.challenges.find(mServer->entry.name());
  if (!mFresh && known == mContext.challenges.end()) return {};
  const auto credentials = mContext.credentialsFor(mServer->entry, route.mode(), mPeer);
  if (credentials.user.empty()) return {};
  auto& challenge = mFresh ? *mFresh : known->second;
  return authorizationFor(challenge.challenge, credentials, request.method,
                          targetFor(request, route), challenge.clientNonce, ++challenge.count);
}

/// Whether mServer could answer this request's head with a 407, and the relay has a password for
/// mServer. A 407 is possible even if a Digest challenge is known, because its nonce may be too
/// old.
bool Session::mayWantPassword(const RequestHead& request, const Route& route) {
  const bool hasBody = request.body.kind != BodyKind::kNone;
  if (!hasBody || !mServer->isAbsoluteForm || mIsExpectRefused) return false;
  if (mContext.credentialsFor(mServer->entry, route.mode(), mPeer).user.empty()) return false;
  const auto known = mContext.challenges.find(mServer->entry.name());
  if (mFresh || known == mContext.challenges.end()) return true;
  const auto scheme = known->second.challenge.scheme;
  return scheme == Challenge::Scheme::kDigestMd5 || scheme == Challenge::Scheme::kDigestSha256;
}

/// Stores the challenge of a 407. @return whether another attempt can send a password
bool Session::canAuthenticate(const ResponseHead& response, const Route& route) {
  if (mFresh) return false;  // the proxy has refused this password
  if (mContext.credentialsFor(mServer->entry, route.mode(), mPeer).user.empty()) return false;
  std::vector<std::string_view> values;
  for (const auto& field : response.fields.list) {
    if (base::equalIgnoringCase(field.name, "Proxy-Authenticate")) values.push_back(field.value);
  }
  KnownChallenge known;
  known.challenge = readChallenges(values);
  if (known.challenge.scheme == Challenge::Scheme::kNone) return false;
  known.clientNonce = newClientNonce();
  // A proxy refuses a nonce count if it has already seen a higher count for the same nonce. This
  // can happen when several requests use one nonce, because they may overtake each other. So at
  // first, only the next attempt of this request uses the new nonce. shareChallenge() gives the
  // nonce to other requests later.
  mFresh = std::move(known);
  return true;
}

/// Handles a 407 of mServer. @return kAgain if the next attempt can send a password
Session::Exchange Session::challenged(const ResponseHead& response, const Route& route) {
  if (!canAuthenticate(response, route)) return Exchange::kAuthentication;
  if (!mIsBodyStarted) return Exchange::kAgain;
  // A part of the body was sent, so this request cannot be repeated. The next request can use the
  // challenge.
  shareChallenge();
  return Exchange::kAuthentication;
}

/// Stores the requirement of mServer's proxy for all later requests: a password with the nonce of
/// mFresh, or no password.
void Session::shareChallenge() {
  if (!mFresh && !mContinue) return;
  if (mContext.challenges.size() >= kMaxChallenges) mContext.challenges.clear();
  auto& known = mContext.challenges[mServer->entry.name()];
  if (mFresh) known = *std::move(mFresh);
  mFresh.reset();
}

Task<Session::Exchange> Session::answer(const RequestHead& request, const Route& route) {
  std::string head;
  ResponseHead response;
  const bool hasOwnExpect = mContinue && !request.fields.has("Expect");
  while (true) {
    if (!co_await readResponse(request, head, response)) co_return withoutAnswer();
    if (response.status / 100 != 1 || response.status == 101) break;
    const bool isContinue = response.status == 100;
    if (isContinue && mContinue) mContinue->happen();
    if (!request.isHttp11 || (isContinue && hasOwnExpect)) continue;
    ResponseForm form;
    form.via = mContext.name;
    if (!co_await mClient.write(responseFor(response, form))) co_return Exchange::kClose;
  }
  if (response.status == 101 && !isUpgrade(request)) {
    mAnswerProblem = "status 101, and the client asked for no other protocol";
    co_return Exchange::kRefusedAnswer;
  }
  if (response.status == 407 && mServer->isAbsoluteForm) {
    co_return challenged(response, route);
  }
  if (mServer->isAbsoluteForm) mContext.penalties.answered(mServer->entry);
  shareChallenge();
  if (response.status == 417 && hasOwnExpect && !mIsBodyStarted) {
    mIsExpectRefused = true;
    co_return Exchange::kAgain;
  }
  co_return co_await relayResponse(request, route, response);
}

Task<Session::Exchange> Session::relayResponse(const RequestHead& request, const Route& route,
                                               const ResponseHead& response) {
  mContext.counters.requests++;
  const auto destination = route.destination().text();
  decide(destination, mServer->entry.name(), true);
  if (mContext.configured.configuration.logRequests) {
    logLine(LOG_INFO, "relay: request to %s by %s", destination.c_str(),
            mServer->entry.name().c_str());
  }
  ResponseForm form;
  form.via = mContext.name;
  form.isHttp11 = request.isHttp11;
  form.isUpgrade = response.status == 101;
  const bool isDelimited = response.body.kind != BodyKind::kUntilClose &&
                           (response.body.kind != BodyKind::kChunked || request.isHttp11);
  form.isKept = isDelimited && mIsBodySent && keepsConnection(request.fields, request.isHttp11);
  if (!co_await mClient.write(responseFor(response, form))) co_return Exchange::kClose;
  if (form.isUpgrade) {
    handOver(std::move(mServer->stream), std::move(mServerIn));
    co_return Exchange::kHandedOver;
  }
  const bool isWhole = co_await relayBody(response, request.isHttp11);
  const bool isServerKept = isWhole && mIsBodySent && !response.isDoubtful && mServerIn.empty() &&
                            response.body.kind != BodyKind::kUntilClose && response.isHttp11 &&
                            keepsConnection(response.fields, true);
  if (!isServerKept) mServer.reset();
  // The client must see that the body is incomplete, so its connection ends here. If a normal end
  // of the connection would mark the end of the body, the connection ends with a reset.
  if (!isWhole && !isDelimited) mClient.abandon();
  if (!isWhole) mClient.close();
  co_return isWhole&& form.isKept ? Exchange::kKeep : Exchange::kClose;
}

/// Forwards the body of the answer to the client. @return whether the client got the whole body
Task<bool> Session::relayBody(const ResponseHead& response, bool isHttp11) {
  BodyReader body(response.body, isHttp11);
  std::string out;
  std::size_t taken = body.take(mServerIn, out);
  mServerIn.erase(0, taken);
  if (mServerIn.empty()) std::string().swap(mServerIn);
  while (true) {
    if (!co_await mClient.write(out)) co_return false;
    if (body.isComplete()) co_return true;
    if (body.problem()[0] != '\0') co_return false;
    keepAlive();
    if (isTurnOver()) co_await asio::post(mContext.loop, asio::use_awaitable);
    auto& buffer = sharedBuffer();
    const auto got = mServer->stream.tryRead(buffer.data(), buffer.size());
    out.clear();
    if (got == Stream::kAgain) {
      mRounds = 0;
      std::string().swap(out);
      if (!co_await mServer->stream.waitRead()) co_return false;
      continue;
    }
    if (got == Stream::kFailed) co_return false;
    const std::string_view bytes(buffer.data(), static_cast<std::size_t>(got));
    if (bytes.empty()) body.streamEnded();
    taken = body.take(bytes, out);
    mServerIn.append(bytes.substr(taken));
  }
}

}  // namespace relay
