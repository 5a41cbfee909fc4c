// A real HTTP server on loopback inside the test process. The test controls every byte of an
// answer.
//
// The server itself only finds the end of a request's head. A route writes its bytes to the socket,
// as slowly, as long and as incorrectly as the test needs. Every connection has its own thread and
// serves one request. The destructor ends the connections and joins the threads.
#pragma once

#include <functional>
#include <memory>
#include <string>

/// One accepted connection, on its own thread.
class Connection {
 public:
  explicit Connection(int fd) : mFd(fd) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Sends the whole text. @return false if the peer has closed the connection
  bool send(const std::string& bytes);

  /// Reads up to `end`, which is included. @return the text; it has no `end` if the peer closes, or
  /// after 64 KiB
  std::string readUntil(const std::string& end);

  /// Blocks until the peer closes or the server ends.
  void waitForPeer();

  /// Makes the next close send a reset instead of an ordinary end.
  void resetOnClose();

  int fd() const { return mFd; }

 private:
  int mFd;
};

/// Listens on an ephemeral port of 127.0.0.1 (and of ::1 if requested) and gives each connection to
/// a function.
class TcpServer {
 public:
  using Handler = std::function<void(Connection&)>;
  enum class Family { ipv4, ipv6 };

  explicit TcpServer(Handler handler, Family family = Family::ipv4);
  ~TcpServer();
  TcpServer(const TcpServer&) = delete;
  TcpServer& operator=(const TcpServer&) = delete;

  int port() const;
  int connections() const;  ///< accepted so far

 private:
  struct State;
  std::unique_ptr<State> mState;
};

class HttpServer {
 public:
  using Handler = TcpServer::Handler;

  explicit HttpServer(TcpServer::Family family = TcpServer::Family::ipv4);
  ~HttpServer();

  /// Sets the handler of requests for `path`. May be called before the first request or later.
  void route(const std::string& path, Handler handler);
  /// Answers every request for `path` with the same bytes.
  void route(const std::string& path, const std::string& bytes);

  std::string url(const std::string& path) const;
  int port() const;

  /// The number of requests for `path` until now. A path without a route gets 404.
  int hits(const std::string& path) const;
  /// Waits for request number `times` for `path`, at most 60 s. @return whether this request
  /// arrived
  bool waitForHits(const std::string& path, int times) const;
  /// The head of the last request for `path`.
  std::string lastRequest(const std::string& path) const;

 private:
  void serve(Connection& connection);
  struct State;
  std::unique_ptr<State> mState;
  std::unique_ptr<TcpServer> mServer;
};

/// A response with Content-Length.
/// @param status such as "200 OK"
/// @param headers each with CRLF
std::string httpResponse(const std::string& status, const std::string& body,
                         const std::string& headers = "");
/// A redirect with the status 302 to `location`.
std::string httpRedirect(const std::string& location);
