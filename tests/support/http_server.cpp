#include "tests/support/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

namespace {

constexpr std::size_t kLongestHead = std::size_t{64} * 1024;

void require(bool done, const char* what) {
  if (done) return;
  std::perror(what);
  std::abort();
}

int listenOnLoopback(TcpServer::Family family) {
  const bool six = family == TcpServer::Family::ipv6;
  const int fd = socket(six ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(fd >= 0, "socket");
  sockaddr_storage address{};
  socklen_t size = 0;
  if (six) {
    auto& in6 = reinterpret_cast<sockaddr_in6&>(address);
    in6.sin6_family = AF_INET6;
    in6.sin6_addr = in6addr_loopback;
    size = sizeof in6;
  } else {
    auto& in4 = reinterpret_cast<sockaddr_in&>(address);
    in4.sin_family = AF_INET;
    in4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    size = sizeof in4;
  }
  require(bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0, "bind");
  require(listen(fd, 64) == 0, "listen");
  return fd;
}

int portOf(int fd) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  require(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
  return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                                             : reinterpret_cast<sockaddr_in&>(address).sin_port);
}

}  // namespace

bool Connection::send(const std::string& bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t sent = ::send(mFd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    done += static_cast<std::size_t>(sent);
  }
  return true;
}

std::string Connection::readUntil(const std::string& end) {
  std::string text;
  char c = '\0';
  while (text.size() < kLongestHead && !text.ends_with(end) && recv(mFd, &c, 1, 0) == 1) text += c;
  return text;
}

void Connection::waitForPeer() {
  char bytes[512];
  while (recv(mFd, bytes, sizeof bytes, 0) > 0) continue;
}

void Connection::resetOnClose() {
  const linger now{1, 0};
  setsockopt(mFd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

struct TcpServer::State {
  Handler handler;
  int listener = -1;
  int port = 0;
  mutable std::mutex mutex;
  bool ending = false;
  int accepted = 0;
  std::set<int> open;
  std::list<std::thread> threads;
  std::thread acceptor;

  void serve(int fd) {
    Connection connection(fd);
    handler(connection);
    const std::lock_guard lock(mutex);
    open.erase(fd);
    close(fd);
  }
  void acceptAll() {
    for (;;) {
      // A waiting accept() would reserve a descriptor, and tests that count descriptors would
      // notice it.
      pollfd waiting{listener, POLLIN, 0};
      poll(&waiting, 1, -1);
      const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      const std::lock_guard lock(mutex);
      if (ending || fd < 0) {
        if (fd >= 0) close(fd);
        return;
      }
      ++accepted;
      open.insert(fd);
      threads.emplace_back([this, fd] { serve(fd); });
    }
  }
};

TcpServer::TcpServer(Handler handler, Family family) : mState(std::make_unique<State>()) {
  mState->handler = std::move(handler);
  mState->listener = listenOnLoopback(family);
  mState->port = portOf(mState->listener);
  mState->acceptor = std::thread([state = mState.get()] { state->acceptAll(); });
}

TcpServer::~TcpServer() {
  {
    const std::lock_guard lock(mState->mutex);
    mState->ending = true;
    shutdown(mState->listener, SHUT_RDWR);  // wakes poll
    for (const int fd : mState->open) shutdown(fd, SHUT_RDWR);
  }
  mState->acceptor.join();
  for (auto& thread : mState->threads) thread.join();
  close(mState->listener);
}

int TcpServer::port() const {
  return mState->port;
}

int TcpServer::connections() const {
  const std::lock_guard lock(mState->mutex);
  return mState->accepted;
}

struct HttpServer::State {
  std::string host;
  mutable std::mutex mutex;
  mutable std::condition_variable asked;
  std::map<std::string, Handler> routes;
  std::map<std::string, int> hits;
  std::map<std::string, std::string> requests;
};

HttpServer::HttpServer(TcpServer::Family family) : mState(std::make_unique<State>()) {
  mState->host = family == TcpServer::Family::ipv6 ? "[::1]" : "127.0.0.1";
  mServer = std::make_unique<TcpServer>([this](Connection& peer) { serve(peer); }, family);
}

HttpServer::~HttpServer() {
  mServer.reset();
}

void HttpServer::serve(Connection& connection) {
  const std::string head = connection.readUntil("\r\n\r\n");
  const auto start = head.find(' ') + 1;
  const std::string path = head.substr(start, head.find(' ', start) - start);
  Handler handler;
  {
    const std::lock_guard lock(mState->mutex);
    ++mState->hits[path];
    mState->requests[path] = head;
    if (const auto found = mState->routes.find(path); found != mState->routes.end()) {
      handler = found->second;
    }
    mState->asked.notify_all();
  }
  if (handler) {
    handler(connection);
  } else {
    connection.send(httpResponse("404 Not Found", "no such page\n"));
  }
}

void HttpServer::route(const std::string& path, Handler handler) {
  const std::lock_guard lock(mState->mutex);
  mState->routes[path] = std::move(handler);
}

void HttpServer::route(const std::string& path, const std::string& bytes) {
  route(path, [bytes](Connection& connection) { connection.send(bytes); });
}

std::string HttpServer::url(const std::string& path) const {
  return "http://" + mState->host + ":" + std::to_string(port()) + path;
}

int HttpServer::port() const {
  return mServer->port();
}

int HttpServer::hits(const std::string& path) const {
  const std::lock_guard lock(mState->mutex);
  return mState->hits[path];
}

bool HttpServer::waitForHits(const std::string& path, int times) const {
  std::unique_lock lock(mState->mutex);
  return mState->asked.wait_for(lock, std::chrono::seconds(60),
                                [&] { return mState->hits[path] >= times; });
}

std::string HttpServer::lastRequest(const std::string& path) const {
  const std::lock_guard lock(mState->mutex);
  return mState->requests[path];
}

std::string httpResponse(const std::string& status, const std::string& body,
                         const std::string& headers) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n" + headers + "\r\n" + body;
}

std::string httpRedirect(const std::string& location) {
  return httpResponse("302 Found", "moved\n", "Location: " + location + "\r\n");
}
