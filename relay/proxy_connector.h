// Handshakes with proxies. libcurl does them on the relay's loop.
//
// The caller has already connected to the proxy. libcurl does only the handshake and the
// authentication over this connection. After that, the caller owns the socket again. Only a TLS
// connection keeps its libcurl handle. libcurl looks up no names here: a lookup would block the
// whole relay until it ends.
#pragma once

#include <curl/curl.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "relay/configuration.h"
#include "relay/destination.h"
#include "relay/entry.h"
#include "relay/stream.h"

namespace relay {

/// The result of a connection through a proxy.
enum class ProxyResult : std::uint8_t {
  kConnected,
  kProxyFailed,        ///< broken TLS, or another protocol
  kNoAnswer,           ///< the proxy accepted the connection, and then was slow or closed it
  kDestinationFailed,  ///< the proxy works but cannot reach the destination
  kRefused  ///< the proxy answered with a status that refuses the tunnel, such as 403 or 407
};

struct ThroughProxy {
  ProxyResult result = ProxyResult::kProxyFailed;
  std::optional<Stream> stream;   ///< set if connected
  unsigned status = 0;            ///< the proxy's HTTP status, if it gave one
  bool isVersionRefused = false;  ///< the proxy does not support this version of SOCKS
  std::string early;              ///< if connected: bytes that followed the proxy's answer
  std::string problem;            ///< for people, without credentials
};

class ProxyConnector {
 public:
  /// @param via the relay's own name, for the Via field of CONNECT
  ProxyConnector(asio::io_context& loop, std::string via);
  ProxyConnector(const ProxyConnector&) = delete;
  ProxyConnector& operator=(const ProxyConnector&) = delete;
  ~ProxyConnector();

  /// Makes a tunnel to `destination` through the proxy `entry`.
  /// @param connection a connection to this proxy
  /// @param destination an address if the proxy does not look up names (socks4, socks5)
  /// @param credentials with an empty user, no credentials are sent
  Task<ThroughProxy> tunnel(const Entry& entry, Stream connection, const Destination& destination,
                            const Credentials& credentials, Clock::duration limit);

  /// Does only the TLS handshake with the HTTPS proxy `entry`.
  Task<ThroughProxy> toHttpsProxy(const Entry& entry, Stream connection, Clock::duration limit);

 private:
  struct Transfer;
  struct Watch;

  Task<ThroughProxy> run(Transfer& transfer);
  ThroughProxy result(Transfer& transfer, CURLcode code);
  void setUp(Transfer& transfer, const Entry& entry, Stream connection, Clock::duration limit);
  static int onSocket(CURL*, curl_socket_t fd, int what, void* self, void* watch);
  static int onTimer(CURLM*, long milliseconds, void* self);
  static curl_socket_t onOpen(void* transfer, curlsocktype, curl_sockaddr* address);
  static int onOpened(void* transfer, curl_socket_t fd, curlsocktype);
  static int onClose(void* transfer, curl_socket_t fd);
  void watch(Watch& watch);
  void forget(curl_socket_t fd);
  void act(curl_socket_t fd, int events);

  asio::io_context& mLoop;
  const std::string mVia;
  CURLM* mMulti;
  asio::steady_timer mTimer;
  std::map<curl_socket_t, std::shared_ptr<Watch>> mWatches;
};

}  // namespace relay
