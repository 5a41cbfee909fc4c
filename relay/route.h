// The route of one request: it tries the entries of the daemon's answer, one after the other.
//
// It distinguishes three failures. If a proxy fails, it gets a penalty, and other requests try it
// last. If the destination fails, only this request tries the next entry. If a proxy accepts the
// connection and does not answer, the cause is not clear: see Penalties::doubt(). Without this
// distinction, after one request for a dead host, all users would bypass the proxy.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "relay/context.h"

namespace relay {

/// A connection that can carry the request: to the server, or through a proxy.
struct Upstream {
  Upstream(Stream connected, Entry by, bool wantsAbsoluteForm)
      : stream(std::move(connected)), entry(std::move(by)), isAbsoluteForm(wantsAbsoluteForm) {}

  Stream stream;
  Entry entry;
  bool isAbsoluteForm = false;  ///< the request's target is the whole URL
  std::string early;            ///< for a tunnel: bytes of the server that were already read
};

/// Why the relay refuses a request. With status 0, the relay does not refuse it.
struct Refusal {
  unsigned status = 0;
  std::string text;  ///< lines for people
};

class Route {
 public:
  /// @param wantsAbsoluteForm true for a request for an http URL: HTTP proxies get the whole URL.
  /// If false, the request uses a tunnel.
  Route(Context& context, Destination destination, bool wantsAbsoluteForm, const Peer& peer)
      : mContext(context),
        mDestination(std::move(destination)),
        mWantsAbsoluteForm(wantsAbsoluteForm),
        mPeer(peer) {}

  /// Asks the daemon which entries to try for `url`. @return why the relay refuses the request;
  /// status 0 if the caller can go on with next()
  Task<Refusal> begin(const std::string& url);

  /// Whether the next attempt would use `entry`. If so, the caller can use a connection that an
  /// earlier request left open.
  bool isNext(const Entry& entry) const;

  /// Connects with the next entry that works. @return nothing if no entry is left; see failure()
  Task<std::optional<Upstream>> next();

  /// Reports that the proxy of the last upstream ended the connection before it answered.
  void closedEarly(const std::string& problem);
  /// Reports that the relay refuses the answer that came through `entry`. No further entry is
  /// tried.
  void refuseAnswer(const Entry& entry, const std::string& problem);
  /// Adds a line about `entry` to the text that the client and the log get if no entry works.
  void note(const Entry& entry, const std::string& problem);
  /// After this call, next() tries the entry of the last upstream again.
  void again();
  /// Reports that the proxy of the last upstream requires authentication, and that the relay has no
  /// credentials for this proxy.
  void wantsAuthentication();

  /// The answer for the client if no entry is left.
  Refusal failure() const;
  const std::string& mode() const { return mMode; }
  const Destination& destination() const { return mDestination; }

 private:
  Task<bool> leadsToThisDevice();
  Task<std::optional<Stream>> attempt(const Entry& entry);
  Task<std::optional<Stream>> tunnel(const Entry& entry, Stream connection, Clock::time_point end);
  Task<std::optional<Stream>> handshake(const Entry& entry, Stream connection,
                                        Clock::time_point end);
  Task<bool> findAddress(const Entry& entry, Destination& destination);
  Task<std::optional<Stream>> direct(const Entry& entry, const Destination& destination);
  std::optional<Stream> take(const Entry& entry, ThroughProxy through);
  void proxyDoubted(const Entry& entry, const std::string& problem);
  void proxyFailed(const Entry& entry, const std::string& problem);
  std::string refusedAddress(const sockaddr* address, const Entry& entry);

  Context& mContext;
  const Destination mDestination;
  const bool mWantsAbsoluteForm;
  const Peer mPeer;
  std::string mMode;
  std::vector<Entry> mEntries;
  std::size_t mNext = 0;
  std::string mEarly;      ///< Upstream::early of the last tunnel
  std::string mLines;      ///< one line for each attempt
  unsigned mStatus = 502;  ///< the status of failure()
  bool mIsFinal = false;   ///< the relay tries no further entry
};

}  // namespace relay
