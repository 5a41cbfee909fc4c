// The way of one request: the entries of the daemon's answer, one after the other.
//
// Two failures are kept apart. A proxy that failed gets a penalty, and other requests try it last.
// A destination that failed costs only this request another attempt: otherwise one request for a
// dead host would send every user past the proxy.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "relay/context.h"

namespace relay {

/// A connection on which the request can leave.
struct Upstream {
  Upstream(Stream connected, Entry by, bool wantsAbsoluteForm)
      : stream(std::move(connected)), entry(std::move(by)), isAbsoluteForm(wantsAbsoluteForm) {}

  Stream stream;
  Entry entry;
  bool isAbsoluteForm = false;  ///< the request's target is the whole URL
  std::string early;            ///< of a tunnel: bytes that were read already
};

/// Why a request is not served. Status 0: it is.
struct Refusal {
  unsigned status = 0;
  std::string text;  ///< lines for people
};

class Route {
 public:
  /// @param wantsAbsoluteForm an http URL: HTTP proxies get it whole. Else all is tunnelled.
  Route(Context& context, Destination destination, bool wantsAbsoluteForm, const Peer& peer)
      : mContext(context),
        mDestination(std::move(destination)),
        mWantsAbsoluteForm(wantsAbsoluteForm),
        mPeer(peer) {}

  /// Asks the daemon about `url`.
  Task<Refusal> begin(const std::string& url);

  /// Whether the next attempt would go by `upstream`, which an earlier request left open.
  bool isNext(const Entry& entry) const;

  /// Connects by the next entry that works. @return nothing if none is left; see failure()
  Task<std::optional<Upstream>> next();

  /// The proxy of the last upstream closed or broke the connection before it answered.
  void closedEarly(const std::string& problem);
  /// The entry of the last upstream is the next one again.
  void again();
  /// The proxy of the last upstream wants authentication that the relay does not have.
  void wantsAuthentication();

  /// What to answer when no attempt is left.
  Refusal failure() const;
  const std::string& mode() const { return mMode; }
  const Destination& destination() const { return mDestination; }

 private:
  Task<std::optional<Stream>> attempt(const Entry& entry);
  Task<std::optional<Stream>> tunnel(const Entry& entry);
  Task<std::optional<Stream>> direct(const Entry& entry, const Destination& destination);
  std::optional<Stream> take(const Entry& entry, ThroughProxy through);
  void note(const Entry& entry, const std::string& problem);
  void proxyFailed(const Entry& entry, const std::string& problem);
  std::string refusedAddress(const sockaddr* address, const Entry& entry);

  Context& mContext;
  const Destination mDestination;
  const bool mWantsAbsoluteForm;
  const Peer mPeer;
  std::string mMode;
  std::vector<Entry> mEntries;
  std::size_t mNext = 0;
  std::string mEarly;      ///< of the last tunnel, see Upstream
  std::string mLines;      ///< one for each attempt
  unsigned mStatus = 502;  ///< for failure()
  bool mIsFinal = false;   ///< no further entry is tried
};

}  // namespace relay
