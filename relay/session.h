// One connection of a client, from its first byte to its end or until it becomes a tunnel.
//
// The first byte shows whether the client uses SOCKS or HTTP. The session serves HTTP requests one
// after the other; later requests of the client wait. If the session keeps a connection to a server
// or a proxy open, only the next request of the same client can use this connection.
//
// The session's coroutine owns the object. A session needs no buffer while it waits for a request.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "relay/context.h"
#include "relay/http_body.h"
#include "relay/rewrite.h"
#include "relay/route.h"
#include "relay/slot.h"

namespace relay {

/// How long a body waits for the proxy's 100 or 407, if the proxy may require a password. Servers
/// are not required to send a 100 (RFC 9110, 10.1.1). Other HTTP clients wait just as long.
inline constexpr std::chrono::seconds kAnswerBeforeBody{1};
/// How often the relay checks whether a client that waits for an answer is still there.
inline constexpr std::chrono::seconds kClientCheck{2};
/// Number of reads or requests of one connection that the relay handles without a pause. After
/// that, other connections get their turn.
inline constexpr unsigned kTurn = 64;

class Session : public Watched, public std::enable_shared_from_this<Session> {
 public:
  Session(Context& context, Stream client, const Peer& peer, bool isRefused, Slot slot);

  /// Starts the session. The session's coroutine keeps the session alive until the coroutine ends.
  void start();

  void expire() override;

 private:
  /// What happens to the client's connection after a request.
  enum class Next : std::uint8_t { kKeep, kClose, kHandedOver };
  /// The result of one exchange with an upstream.
  enum class Exchange : std::uint8_t {
    kKeep,            ///< done; the client's connection stays open
    kClose,           ///< done, or failed after the answer began
    kHandedOver,      ///< after status 101, the connection is a tunnel
    kNoAnswer,        ///< the upstream ended before its answer; the client got nothing
    kRefusedAnswer,   ///< the relay does not forward this answer; the client got nothing
    kAuthentication,  ///< a 407, which the client does not get
    kAgain            ///< a 407 or 417; the next attempt has another head
  };

  // session.cpp
  static Task<void> run(std::shared_ptr<Session> self);
  Task<void> serveHttp();
  Task<std::string> readHead();
  Task<bool> readMore();
  void keepAlive();
  bool isClientGone();
  bool isTurnOver() { return ++mRounds % kTurn == 0; }
  Task<Next> serve(const std::string& head);
  Task<Next> respond(unsigned status, std::string text);
  Task<Next> ownPage(const RequestHead& request);
  void decide(const std::string& destination, const std::string& entry, bool isGood);
  void logFailure(const Destination& destination, const Refusal& failure);
  bool isPortAllowed(std::uint16_t port) const;

  // tunnel_request.cpp
  Task<Next> connect(const RequestHead& request);
  Task<void> serveSocks(int version);
  Task<std::optional<Destination>> socksDestination(int version);
  Task<std::optional<Upstream>> openTunnel(const Destination& destination, const std::string& url,
                                           Refusal& refusal);
  void handOver(Stream server, std::string forClient);

  // forward.cpp
  Task<Next> forward(const RequestHead& request);
  Task<Exchange> exchange(const RequestHead& request, const HttpTarget& target, Route& route);
  Task<Exchange> exchangeOnce(const RequestHead& request, const HttpTarget& target, Route& route);
  static bool isWithoutAnswer(Exchange exchange);
  std::string authorization(const RequestHead& request, const Route& route);
  bool mayWantPassword(const RequestHead& request, const Route& route);
  bool canAuthenticate(const ResponseHead& response, const Route& route);
  Exchange challenged(const ResponseHead& response, const Route& route);
  void shareChallenge();
  Task<Exchange> answer(const RequestHead& request, const Route& route);
  Task<bool> mayBodyLeave();
  Task<void> sendBody(const RequestHead& request);
  Task<bool> readResponse(const RequestHead& request, std::string& head, ResponseHead& response);
  Exchange withoutAnswer() const;
  Task<Exchange> relayResponse(const RequestHead& request, const Route& route,
                               const ResponseHead& response);
  Task<bool> relayBody(const ResponseHead& response, bool isHttp11);

  Context& mContext;
  Stream mClient;
  const Peer mPeer;
  const bool mIsRefused;  ///< allow-users or deny-users refuses the client's user
  Slot mSlot;
  std::string mIn;                  ///< read from the client, not processed yet
  std::optional<Upstream> mServer;  ///< the upstream of the last request in absolute form
  std::string mServerDestination;   ///< the destination for which mServer was opened
  std::string mServerIn;            ///< read from mServer, not processed yet
  std::optional<KnownChallenge>
      mFresh;                       ///< from a 407; only the next attempt of this request uses it
  const char* mAnswerProblem = "";  ///< why the relay did not accept the head of an answer
  bool mIsAnswerHttp = false;       ///< the refused head began like a head of HTTP/1
  /// Happens when a 100 arrives. No value if the request's body does not wait for a 100.
  std::optional<Event> mContinue;
  bool mIsExpectRefused = false;  ///< the server refused Expect for this request
  bool mIsReused = false;         ///< mServer was used before
  bool mHasServerByte = false;    ///< mServer sent something since the request
  bool mIsBodyStarted = false;    ///< a part of the request's body was sent
  bool mIsBodySent = true;        ///< the whole body was sent
  unsigned mRounds = 0;           ///< see kTurn
  bool mIsHead = false;           ///< the request's method is HEAD
  bool mIsServing = false;        ///< a request is being answered; its time ends at mEnd
  Clock::time_point mEnd;
  bool mIsInRequest = false;  ///< a request has begun; head-time limits the time for its head
};

}  // namespace relay
