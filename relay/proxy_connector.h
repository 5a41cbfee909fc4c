// Connections through proxies. libcurl makes them on the relay's loop.
//
// libcurl connects to the proxy, does the handshake and the authentication, and stops. The caller
// then owns the socket. Only a TLS connection keeps its libcurl handle.
#pragma once

#include <curl/curl.h>

#include <functional>
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
  kProxyFailed,        ///< no connection, no answer in time, broken TLS, or another protocol
  kDestinationFailed,  ///< the proxy works but cannot reach the destination
  kRefused,            ///< the proxy answered with another status
  kOurselves           ///< the proxy is this relay
};

struct ThroughProxy {
  ProxyResult result = ProxyResult::kProxyFailed;
  std::optional<Stream> stream;   ///< if connected
  unsigned status = 0;            ///< the proxy's HTTP status, if it gave one
  bool isVersionRefused = false;  ///< the proxy does not speak this version of SOCKS
  std::string early;              ///< if connected: bytes that followed the proxy's answer
  std::string problem;            ///< for people, without credentials
};

class ProxyConnector {
 public:
  /// Whether this relay listens on an address.
  using IsOurs = std::function<bool(const sockaddr* address)>;

  /// @param via the relay's own name, for the Via field of CONNECT
  ProxyConnector(asio::io_context& loop, std::string via, IsOurs isOurs);
  ProxyConnector(const ProxyConnector&) = delete;
  ProxyConnector& operator=(const ProxyConnector&) = delete;
  ~ProxyConnector();

  /// Connects to `destination` through the proxy `entry`.
  /// @param credentials with an empty user, no credentials are sent
  Task<ThroughProxy> tunnel(const Entry& entry, const Destination& destination,
                            const Credentials& credentials, Clock::duration limit);

  /// Connects only to the HTTPS proxy `entry`, for a request in absolute form.
  Task<ThroughProxy> toHttpsProxy(const Entry& entry, Clock::duration limit);

 private:
  struct Transfer;
  struct Watch;

  Task<ThroughProxy> run(Transfer& transfer);
  ThroughProxy result(Transfer& transfer, CURLcode code);
  void setUp(Transfer& transfer, Clock::duration limit);
  static int onSocket(CURL*, curl_socket_t fd, int what, void* self, void* watch);
  static int onTimer(CURLM*, long milliseconds, void* self);
  static curl_socket_t onOpen(void* transfer, curlsocktype, curl_sockaddr* address);
  static int onClose(void* transfer, curl_socket_t fd);
  void watch(Watch& watch);
  void forget(curl_socket_t fd);
  void act(curl_socket_t fd, int events);

  asio::io_context& mLoop;
  const std::string mVia;
  const IsOurs mIsOurs;
  CURLM* mMulti;
  asio::steady_timer mTimer;
  std::map<curl_socket_t, std::shared_ptr<Watch>> mWatches;
};

}  // namespace relay
