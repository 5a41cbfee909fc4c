// Connections through proxies, made by libcurl on the relay's loop.
//
// libcurl connects to the proxy, does the handshake with its authentication, and stops there. Its
// socket is then the caller's; only a connection in TLS keeps its handle.
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

/// How an attempt to go through a proxy ended.
enum class ProxyResult : std::uint8_t {
  kConnected,
  kProxyFailed,        ///< no connection, no answer in time, broken TLS, no protocol
  kDestinationFailed,  ///< the proxy works, and did not reach the destination
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
  /// Whether an address is one that this relay listens on.
  using IsOurs = std::function<bool(const sockaddr* address)>;

  /// @param via the relay's own name, for the field Via of CONNECT
  ProxyConnector(asio::io_context& loop, std::string via, IsOurs isOurs);
  ProxyConnector(const ProxyConnector&) = delete;
  ProxyConnector& operator=(const ProxyConnector&) = delete;
  ~ProxyConnector();

  /// Connects to `destination` through `entry`, which is a proxy.
  /// @param credentials without a user none are sent
  Task<ThroughProxy> tunnel(const Entry& entry, const Destination& destination,
                            const Credentials& credentials, Clock::duration limit);

  /// Connects to the HTTPS proxy `entry` itself, for a request in absolute form.
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
