// The server behind the measured proxies. The first byte of a connection decides what the server
// sends:
// - 'e': each received byte
// - 'b': zeros, until the client closes the connection
// - 'G' (HTTP): a response of 64 KiB to each request, on a kept connection
//
// usage: relay_server PORT. The server has one thread with an event loop, so idle connections need
// no threads.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t kBody = 64 << 10;
constexpr std::size_t kPiece = 256 << 10;
constexpr std::string_view kHeadEnd = "\r\n\r\n";

/// The bytes that are sent repeatedly.
const std::string& zeros() {
  static const std::string bytes(kPiece, '\0');
  return bytes;
}

const std::string& response() {
  static const std::string text =
      "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(kBody) +
      "\r\n\r\n" + std::string(kBody, 'x');
  return text;
}

struct Connection {
  int socket;
  char kind = 0;
  std::string head;     ///< the received part of an HTTP head
  std::string waiting;  ///< bytes that must still be sent
  std::size_t sent = 0;
};

/// @return whether the connection is still open
bool flush(Connection& connection) {
  for (;;) {
    if (connection.kind == 'b' && connection.sent == connection.waiting.size()) {
      connection.waiting = zeros();
      connection.sent = 0;
    }
    if (connection.sent == connection.waiting.size()) break;
    const auto done = send(connection.socket, connection.waiting.data() + connection.sent,
                           connection.waiting.size() - connection.sent, MSG_NOSIGNAL);
    if (done < 0) return errno == EAGAIN;
    connection.sent += static_cast<std::size_t>(done);
  }
  connection.waiting.clear();
  connection.sent = 0;
  return true;
}

void take(Connection& connection, std::string_view bytes) {
  if (connection.kind == 0) connection.kind = bytes.front();
  if (connection.kind == 'e') connection.waiting += bytes;
  if (connection.kind != 'G') return;
  connection.head += bytes;
  for (auto end = connection.head.find(kHeadEnd); end != std::string::npos;
       end = connection.head.find(kHeadEnd)) {
    connection.head.erase(0, end + kHeadEnd.size());
    connection.waiting += response();
  }
}

/// @return whether the connection is still open
bool receive(Connection& connection) {
  std::array<char, 64 << 10> bytes{};
  for (;;) {
    const auto got = recv(connection.socket, bytes.data(), bytes.size(), 0);
    if (got == 0) return false;
    if (got < 0) return errno == EAGAIN;
    take(connection, {bytes.data(), static_cast<std::size_t>(got)});
  }
}

int listener(const char* port) {
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  const int on = 1;
  setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(port)));
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(made, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(made, 4096) != 0) {
    std::perror("relay_server");
    std::exit(1);
  }
  return made;
}

void accept(int loop, int from) {
  for (;;) {
    const int socket = accept4(from, nullptr, nullptr, SOCK_NONBLOCK);
    if (socket < 0) return;
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // With these options, close() sends a reset. A reset also ends the connection of the other
    // side, so the port of the other side is free for the next tunnel at once.
    const linger reset{1, 0};
    setsockopt(socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLET;
    // The event owns the object until the connection ends.
    event.data.ptr = new Connection{socket, 0, {}, {}, 0};
    epoll_ctl(loop, EPOLL_CTL_ADD, socket, &event);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const int from = listener(argv[1]);
  const int loop = epoll_create1(0);
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = nullptr;
  epoll_ctl(loop, EPOLL_CTL_ADD, from, &event);
  std::array<epoll_event, 64> events{};
  for (;;) {
    const int count = epoll_wait(loop, events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      auto* const connection =
          static_cast<Connection*>(events[static_cast<std::size_t>(i)].data.ptr);
      if (connection == nullptr) {
        accept(loop, from);
      } else if (!receive(*connection) || !flush(*connection)) {
        close(connection->socket);
        delete connection;
      }
    }
  }
}
