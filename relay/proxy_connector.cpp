#include "relay/proxy_connector.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <new>
#include <utility>

#include "relay/names.h"

namespace relay {

namespace {

curl_proxytype typeOf(proxymanager_kind kind) {
  switch (kind) {
    case PROXYMANAGER_HTTPS:
      return CURLPROXY_HTTPS;
    case PROXYMANAGER_SOCKS4:
      return CURLPROXY_SOCKS4;
    case PROXYMANAGER_SOCKS4A:
      return CURLPROXY_SOCKS4A;
    case PROXYMANAGER_SOCKS5:
      return CURLPROXY_SOCKS5;
    case PROXYMANAGER_SOCKS5H:
      return CURLPROXY_SOCKS5_HOSTNAME;
    default:
      return CURLPROXY_HTTP;
  }
}

/// Whether a SOCKS reply reports a failure of the destination, not of the proxy itself.
bool isAboutDestination(long reply) {
  switch (reply) {
    case CURLPX_REPLY_GENERAL_SERVER_FAILURE:
    case CURLPX_REPLY_NOT_ALLOWED:
    case CURLPX_REPLY_NETWORK_UNREACHABLE:
    case CURLPX_REPLY_HOST_UNREACHABLE:
    case CURLPX_REPLY_CONNECTION_REFUSED:
    case CURLPX_REPLY_TTL_EXPIRED:
    case CURLPX_REPLY_COMMAND_NOT_SUPPORTED:
    case CURLPX_REPLY_ADDRESS_TYPE_NOT_SUPPORTED:
    case CURLPX_REQUEST_FAILED:
      return true;
    default:
      return false;
  }
}

/// Whether the proxy accepted the connection, and then closed it or was slow.
bool isWithoutAnswer(CURLcode code, long reply) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
      return true;
    case CURLE_PROXY:
      return reply == CURLPX_CLOSED || reply == CURLPX_RECV_CONNECT ||
             reply == CURLPX_RECV_REQACK || reply == CURLPX_RECV_ADDRESS;
    default:
      return false;
  }
}

/// If TLS does not accept a write at once, the relay repeats the write from a copy of the bytes.
/// The copy has another address in memory, and OpenSSL allows this only in the mode that is set
/// here.
CURLcode onTlsContext(CURL*, void* context, void*) {
  SSL_CTX_set_mode(static_cast<SSL_CTX*>(context), SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  return CURLE_OK;
}

Socket adopt(asio::io_context& loop, curl_socket_t fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  Socket socket(loop);
  socket.assign(Protocol(address.ss_family, IPPROTO_TCP), fd);
  return socket;
}

}  // namespace

struct ProxyConnector::Transfer {
  Transfer(asio::io_context& loop, CURLM* multi, bool overTls)
      : done(loop), isTls(overTls), handle(curl_easy_init(), CurlRelease{multi}) {
    if (handle == nullptr) throw std::bad_alloc();
  }

  Event done;
  CURLcode code = CURLE_OPERATION_TIMEDOUT;
  base::UniqueFd connected;  ///< the connection to the proxy, until libcurl asks for a socket
  bool isConnected = false;  ///< libcurl got this connection at its last request for a socket
  bool isTaken = false;      ///< libcurl no longer owns the socket
  const bool isTls;
  char error[CURL_ERROR_SIZE] = "";
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers{nullptr, curl_slist_free_all};
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> address{nullptr, curl_slist_free_all};
  CurlHandle handle;
};

/// A descriptor of libcurl that the loop watches.
struct ProxyConnector::Watch {
  Watch(asio::io_context& loop, curl_socket_t fd) : descriptor(loop, fd) {}
  asio::posix::stream_descriptor descriptor;
  int wanted = 0;
  bool reads = false;   ///< a wait for bytes to read is in progress
  bool writes = false;  ///< a wait for space to write is in progress
};

ProxyConnector::ProxyConnector(asio::io_context& loop, std::string via)
    : mLoop(loop), mVia(std::move(via)), mTimer(loop) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  mMulti = curl_multi_init();
  if (mMulti == nullptr) throw std::bad_alloc();
  curl_multi_setopt(mMulti, CURLMOPT_SOCKETFUNCTION, onSocket);
  curl_multi_setopt(mMulti, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(mMulti, CURLMOPT_TIMERFUNCTION, onTimer);
  curl_multi_setopt(mMulti, CURLMOPT_TIMERDATA, this);
}

ProxyConnector::~ProxyConnector() {
  curl_multi_cleanup(mMulti);
}

void ProxyConnector::setUp(Transfer& transfer, const Entry& entry, Stream connection,
                           Clock::duration limit) {
  CURL* const handle = transfer.handle.get();
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit).count();
  // At least 1 ms: for libcurl, 0 means its own limit of five minutes.
  const auto milliseconds = static_cast<long>(std::max<std::int64_t>(left, 1));
  ErrorCode error;
  const auto peer = connection.socket().remote_endpoint(error);
  transfer.connected.reset(connection.socket().release(error));
  // libcurl uses this address for the proxy's name, without a lookup. With "+", libcurl forgets the
  // address after a minute.
  const std::string at = "+" + entry.host + ":" + std::to_string(entry.port) + ":";
  transfer.address.reset(curl_slist_append(nullptr, (at + addressText(peer)).c_str()));
  curl_easy_setopt(handle, CURLOPT_RESOLVE, transfer.address.get());
  curl_easy_setopt(handle, CURLOPT_PRIVATE, &transfer);
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, transfer.error);
  curl_easy_setopt(handle, CURLOPT_CONNECT_ONLY, 1L);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_NOPROXY, "");
  curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, 1L);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, milliseconds);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, milliseconds);
  curl_easy_setopt(handle, CURLOPT_OPENSOCKETFUNCTION, onOpen);
  curl_easy_setopt(handle, CURLOPT_OPENSOCKETDATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, onOpened);
  curl_easy_setopt(handle, CURLOPT_SOCKOPTDATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, onTlsContext);
  // libcurl parses a file of certificates once for all connections. A folder of certificates would
  // need 0.9 MiB for each connection. The system's file has the same certificates as its folder.
  curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
  curl_easy_setopt(handle, CURLOPT_PROXY_CAPATH, nullptr);
  // With TLS, libcurl owns the socket even after the end of the transfer.
  if (transfer.isTls) return;
  curl_easy_setopt(handle, CURLOPT_CLOSESOCKETFUNCTION, onClose);
  curl_easy_setopt(handle, CURLOPT_CLOSESOCKETDATA, &transfer);
}

Task<ThroughProxy> ProxyConnector::tunnel(const Entry& entry, Stream connection,
                                          const Destination& destination,
                                          const Credentials& credentials, Clock::duration limit) {
  auto transfer = std::make_unique<Transfer>(mLoop, mMulti, entry.kind == PROXYMANAGER_HTTPS);
  CURL* const handle = transfer->handle.get();
  setUp(*transfer, entry, std::move(connection), limit);
  const std::string url = "http://" + destination.text() + "/";
  const Destination proxy{entry.host, entry.port};
  const std::string host = proxy.isIpv6() ? "[" + entry.host + "]" : entry.host;
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_PROXY, host.c_str());
  curl_easy_setopt(handle, CURLOPT_PROXYPORT, static_cast<long>(entry.port));
  curl_easy_setopt(handle, CURLOPT_PROXYTYPE, static_cast<long>(typeOf(entry.kind)));
  if (entry.isHttp()) {
    curl_easy_setopt(handle, CURLOPT_HTTPPROXYTUNNEL, 1L);
    curl_easy_setopt(handle, CURLOPT_HEADEROPT, static_cast<long>(CURLHEADER_SEPARATE));
    transfer->headers.reset(curl_slist_append(nullptr, ("Via: 1.1 " + mVia).c_str()));
    curl_easy_setopt(handle, CURLOPT_PROXYHEADER, transfer->headers.get());
  }
  if (!credentials.user.empty()) {
    curl_easy_setopt(handle, CURLOPT_PROXYUSERNAME, credentials.user.c_str());
    curl_easy_setopt(handle, CURLOPT_PROXYPASSWORD, credentials.password.c_str());
    curl_easy_setopt(handle, CURLOPT_PROXYAUTH, CURLAUTH_ANY);
  }
  co_return co_await run(*transfer);
}

Task<ThroughProxy> ProxyConnector::toHttpsProxy(const Entry& entry, Stream connection,
                                                Clock::duration limit) {
  auto transfer = std::make_unique<Transfer>(mLoop, mMulti, true);
  setUp(*transfer, entry, std::move(connection), limit);
  const std::string url = "https://" + Destination{entry.host, entry.port}.text() + "/";
  curl_easy_setopt(transfer->handle.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(transfer->handle.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(transfer->handle.get(), CURLOPT_SSL_ENABLE_ALPN, 0L);
  auto through = co_await run(*transfer);
  if (through.result != ProxyResult::kConnected) through.result = ProxyResult::kProxyFailed;
  co_return through;
}

Task<ThroughProxy> ProxyConnector::run(Transfer& transfer) {
  curl_multi_add_handle(mMulti, transfer.handle.get());
  // libcurl has its own time limits. This second limit applies only if they do not work.
  constexpr std::chrono::hours kNever{24};
  co_await transfer.done.wait(kNever);
  co_return result(transfer, transfer.code);
}

ThroughProxy ProxyConnector::result(Transfer& transfer, CURLcode code) {
  ThroughProxy through;
  CURL* const handle = transfer.handle.get();
  if (code == CURLE_OK) {
    curl_socket_t fd = CURL_SOCKET_BAD;
    curl_easy_getinfo(handle, CURLINFO_ACTIVESOCKET, &fd);
    forget(fd);
    through.result = ProxyResult::kConnected;
    if (transfer.isTls) {
      // The transfer object is destroyed before its handle, so the handle must not keep pointers to
      // it.
      curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
      curl_easy_setopt(handle, CURLOPT_PROXYHEADER, nullptr);
      curl_easy_setopt(handle, CURLOPT_RESOLVE, nullptr);
      through.stream.emplace(adopt(mLoop, fd), std::move(transfer.handle));
    } else {
      transfer.isTaken = true;
      transfer.handle.reset();
      through.stream.emplace(adopt(mLoop, fd));
    }
    return through;
  }
  long status = 0;
  long reply = 0;
  curl_easy_getinfo(handle, CURLINFO_HTTP_CONNECTCODE, &status);
  curl_easy_getinfo(handle, CURLINFO_PROXY_ERROR, &reply);
  through.problem = transfer.error[0] != '\0' ? transfer.error : curl_easy_strerror(code);
  through.status = static_cast<unsigned>(status);
  const bool isAnswer = code == CURLE_RECV_ERROR && status >= 300;
  through.isVersionRefused =
      code == CURLE_PROXY && (reply == CURLPX_BAD_VERSION || reply == CURLPX_CLOSED ||
                              reply == CURLPX_RECV_CONNECT || reply == CURLPX_UNKNOWN_FAIL);
  if (isAnswer) {
    const bool isGateway = status >= 502 && status <= 504;
    through.result = isGateway ? ProxyResult::kDestinationFailed : ProxyResult::kRefused;
  } else if (code == CURLE_PROXY && isAboutDestination(reply)) {
    through.result = ProxyResult::kDestinationFailed;
  } else if (isWithoutAnswer(code, reply)) {
    through.result = ProxyResult::kNoAnswer;
  }
  return through;
}

curl_socket_t ProxyConnector::onOpen(void* transfer, curlsocktype, curl_sockaddr* address) {
  auto& self = *static_cast<Transfer*>(transfer);
  self.isConnected = static_cast<bool>(self.connected);
  if (self.isConnected) return self.connected.release();
  // The proxy has closed its connection with an answer that requires a password, so libcurl needs a
  // new socket.
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

int ProxyConnector::onOpened(void* transfer, curl_socket_t, curlsocktype) {
  const auto& self = *static_cast<Transfer*>(transfer);
  return self.isConnected ? CURL_SOCKOPT_ALREADY_CONNECTED : CURL_SOCKOPT_OK;
}

int ProxyConnector::onClose(void* transfer, curl_socket_t fd) {
  const auto& self = *static_cast<Transfer*>(transfer);
  return self.isTaken ? 0 : close(fd);
}

int ProxyConnector::onSocket(CURL*, curl_socket_t fd, int what, void* self, void*) {
  auto& connector = *static_cast<ProxyConnector*>(self);
  if (what == CURL_POLL_REMOVE) {
    connector.forget(fd);
    return 0;
  }
  auto& watch = connector.mWatches[fd];
  if (watch == nullptr) watch = std::make_shared<Watch>(connector.mLoop, fd);
  watch->wanted = what;
  connector.watch(*watch);
  return 0;
}

/// Stops watching `fd`, but does not close it: libcurl or the caller does this. Pending handlers
/// may keep the watch object alive longer.
void ProxyConnector::forget(curl_socket_t fd) {
  const auto known = mWatches.find(fd);
  if (known == mWatches.end()) return;
  known->second->descriptor.release();
  mWatches.erase(known);
}

void ProxyConnector::watch(Watch& watch) {
  const auto fd = watch.descriptor.native_handle();
  const auto wait = [&](bool& waits, asio::posix::stream_descriptor::wait_type type, int event) {
    if ((watch.wanted & event) == 0 || waits) return;
    waits = true;
    const auto current = mWatches[fd];
    watch.descriptor.async_wait(type, [this, fd, current, &waits, event](const ErrorCode& error) {
      waits = false;
      const auto known = mWatches.find(fd);
      if (error || known == mWatches.end() || known->second != current) return;
      if ((current->wanted & event) != 0) {
        act(fd, event == CURL_POLL_IN ? CURL_CSELECT_IN : CURL_CSELECT_OUT);
      }
      const auto still = mWatches.find(fd);
      if (still != mWatches.end() && still->second == current) this->watch(*current);
    });
  };
  wait(watch.reads, asio::posix::stream_descriptor::wait_read, CURL_POLL_IN);
  wait(watch.writes, asio::posix::stream_descriptor::wait_write, CURL_POLL_OUT);
}

int ProxyConnector::onTimer(CURLM*, long milliseconds, void* self) {
  auto& connector = *static_cast<ProxyConnector*>(self);
  connector.mTimer.cancel();
  if (milliseconds < 0) return 0;
  connector.mTimer.expires_after(std::chrono::milliseconds(milliseconds));
  connector.mTimer.async_wait([&connector](const ErrorCode& error) {
    if (!error) connector.act(CURL_SOCKET_TIMEOUT, 0);
  });
  return 0;
}

void ProxyConnector::act(curl_socket_t fd, int events) {
  int running = 0;
  curl_multi_socket_action(mMulti, fd, events, &running);
  int left = 0;
  while (const auto* const message = curl_multi_info_read(mMulti, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    void* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    if (transfer == nullptr) continue;
    auto& ended = *static_cast<Transfer*>(transfer);
    ended.code = message->data.result;
    ended.done.happen();
  }
}

}  // namespace relay
