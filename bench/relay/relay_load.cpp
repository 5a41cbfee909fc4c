// Makes load for a proxy. Prints the result as one number on standard output.
//
// usage: relay_load KIND PROXY TARGET CLIENTS SECONDS
// - tunnels: tunnels a second, each with CONNECT and one byte in each direction
// - responses: responses a second, each of 64 KiB, on kept connections
// - latency (one client): median time of a request with a response of 64 KiB, on one kept
//   connection, in microseconds
// - bulk: MB a second that arrive through tunnels
// - idle (CLIENTS is the number of tunnels, SECONDS is 0): opens the tunnels, prints their number,
//   and keeps them open until standard input ends
//
// PROXY and TARGET are ADDRESS:PORT. If PROXY is "-", the connections go to the target directly. If
// PROXY is "plain:ADDRESS:PORT", the connections go to a forwarder, without CONNECT. Each client is
// a thread.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "base/unique_fd.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Load {
  std::string proxy;
  std::string target;
  bool isPlain = false;   ///< the proxy forwards without CONNECT
  bool isDirect = false;  ///< there is no proxy
  int clients = 1;
  Clock::time_point end;
};

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "relay_load: %s\n", why.c_str());
  std::exit(1);
}

base::UniqueFd connectTo(const std::string& at) {
  const auto colon = at.rfind(':');
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(at.c_str() + colon + 1)));
  if (inet_pton(AF_INET, at.substr(0, colon).c_str(), &address.sin_addr) != 1)
    fail("no address: " + at);
  base::UniqueFd made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (connect(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    std::perror("relay_load: connect");
    std::exit(1);
  }
  return made;
}

void sendAll(int socket, std::string_view text) {
  if (send(socket, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
    fail("the connection ended");
  }
}

/// Reads an HTTP head, and no byte after its end. @return the head
std::string headOf(int socket) {
  std::string head;
  char byte = 0;
  while (!head.ends_with("\r\n\r\n")) {
    if (recv(socket, &byte, 1, 0) != 1) fail("no head: " + head);
    head += byte;
  }
  return head;
}

base::UniqueFd openTunnel(const Load& load) {
  if (load.isDirect) return connectTo(load.target);
  auto made = connectTo(load.proxy);
  if (load.isPlain) return made;
  sendAll(made.get(), "CONNECT " + load.target + " HTTP/1.1\r\nHost: " + load.target + "\r\n\r\n");
  const auto head = headOf(made.get());
  if (head.find(" 200") == std::string::npos) fail("no tunnel: " + head);
  return made;
}

void echo(int socket) {
  sendAll(socket, "e");
  char byte = 0;
  if (recv(socket, &byte, 1, 0) != 1) fail("no echo");
}

/// The sum of the results of `client` for all clients.
template <typename Client>
double sumOf(const Load& load, Client client) {
  std::atomic<std::uint64_t> sum{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < load.clients; ++i) threads.emplace_back([&] { sum += client(); });
  for (auto& thread : threads) thread.join();
  return static_cast<double>(sum);
}

std::uint64_t tunnels(const Load& load) {
  std::uint64_t count = 0;
  for (; Clock::now() < load.end; ++count) echo(openTunnel(load).get());
  return count;
}

void readResponse(int socket, std::vector<char>& buffer) {
  constexpr std::size_t kBody = 64 << 10;
  std::size_t have = 0;
  std::size_t wanted = 0;
  while (wanted == 0 || have < wanted) {
    const auto got = recv(socket, buffer.data() + have, buffer.size() - have, 0);
    if (got <= 0) fail("the response ended");
    have += static_cast<std::size_t>(got);
    const auto end = std::string_view(buffer.data(), have).find("\r\n\r\n");
    if (wanted != 0 || end == std::string_view::npos) continue;
    if (std::string_view(buffer.data(), end).find(" 200") == std::string_view::npos) {
      fail("no response: " + std::string(buffer.data(), end));
    }
    wanted = end + 4 + kBody;
  }
}

/// Calls `done` with the time of each response, in microseconds.
template <typename Done>
void ask(const Load& load, Done done) {
  const auto connection = connectTo(load.isDirect ? load.target : load.proxy);
  const auto request = (load.isDirect ? "GET /" : "GET http://" + load.target + "/") +
                       std::string(" HTTP/1.1\r\nHost: ") + load.target + "\r\n\r\n";
  std::vector<char> buffer(96 << 10);
  // At least one request is made. On a busy machine, the time may be over before the first request.
  do {
    const auto begin = Clock::now();
    sendAll(connection.get(), request);
    readResponse(connection.get(), buffer);
    done(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
  } while (Clock::now() < load.end);
}

std::uint64_t responses(const Load& load) {
  std::uint64_t count = 0;
  ask(load, [&](double) { ++count; });
  return count;
}

double latency(const Load& load) {
  std::vector<double> times;
  ask(load, [&](double time) { times.push_back(time); });
  std::nth_element(times.begin(), times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2),
                   times.end());
  return times[times.size() / 2];
}

std::uint64_t bulk(const Load& load) {
  const auto tunnel = openTunnel(load);
  sendAll(tunnel.get(), "b");
  std::vector<char> buffer(256 << 10);
  std::uint64_t bytes = 0;
  while (Clock::now() < load.end) {
    const auto got = recv(tunnel.get(), buffer.data(), buffer.size(), 0);
    if (got <= 0) fail("the transfer ended");
    bytes += static_cast<std::uint64_t>(got);
  }
  return bytes;
}

void idle(const Load& load) {
  std::vector<base::UniqueFd> open;
  for (int i = 0; i < load.clients; ++i) {
    open.push_back(openTunnel(load));
    echo(open.back().get());
  }
  std::printf("%zu\n", open.size());
  std::fflush(stdout);
  while (std::getchar() != EOF) continue;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  const std::string what = argv[1];
  Load load;
  load.proxy = argv[2];
  load.target = argv[3];
  load.isDirect = load.proxy == "-";
  if (load.proxy.starts_with("plain:")) {
    load.isPlain = true;
    load.proxy.erase(0, std::string_view("plain:").size());
  }
  load.clients = std::atoi(argv[4]);
  const double seconds = std::atof(argv[5]);
  load.end = Clock::now() + std::chrono::microseconds(static_cast<std::int64_t>(seconds * 1e6));
  if (what == "idle") {
    idle(load);
  } else if (what == "tunnels") {
    std::printf("%.1f\n", sumOf(load, [&] { return tunnels(load); }) / seconds);
  } else if (what == "responses") {
    std::printf("%.1f\n", sumOf(load, [&] { return responses(load); }) / seconds);
  } else if (what == "bulk") {
    std::printf("%.1f\n", sumOf(load, [&] { return bulk(load); }) / seconds / 1e6);
  } else if (what == "latency") {
    std::printf("%.1f\n", latency(load));
  } else {
    return 2;
  }
  return 0;
}
