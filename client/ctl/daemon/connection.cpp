#include "client/ctl/daemon/connection.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace client {

namespace {

using Clock = std::chrono::steady_clock;
using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

constexpr std::size_t kMaxLine = 1024;

std::string textOf(int error) {
  return std::generic_category().message(error);
}

int millisecondsLeft(Clock::time_point end) {
  const auto time = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
  return static_cast<int>(std::max<std::int64_t>(time, 0));
}

/// A lookup with a time limit. The caller and the thread of the lookup share this object. The C
/// library cannot end a lookup, so the thread may run longer than the caller waits.
struct Lookup {
  Lookup(std::string host, std::uint16_t port)
      : mHost(std::move(host)), mPort(std::to_string(port)) {
    mHints.ai_socktype = SOCK_STREAM;
    mHints.ai_flags = AI_NUMERICSERV;
  }

  void run() {
    addrinfo* found = nullptr;
    const int error = getaddrinfo(mHost.c_str(), mPort.c_str(), &mHints, &found);
    const std::lock_guard lock(mMutex);
    mAddresses.reset(found);
    mError = error;
    mDone.notify_one();
  }

  /// Returns the addresses. If there are none, sets `problem` to the reason.
  Addresses wait(Clock::time_point end, std::string& problem) {
    std::unique_lock lock(mMutex);
    if (!mDone.wait_until(lock, end, [this] { return mError.has_value(); })) {
      problem = "its name is not found in time";
    } else if (*mError != 0) {
      problem = std::string("its name is not found: ") + gai_strerror(*mError);
    }
    return std::move(mAddresses);
  }

 private:
  const std::string mHost;
  const std::string mPort;
  addrinfo mHints{};
  std::mutex mMutex;
  std::condition_variable mDone;
  std::optional<int> mError;
  Addresses mAddresses{nullptr, freeaddrinfo};
};

Addresses lookUp(const std::string& host, std::uint16_t port, Clock::time_point end,
                 std::string& problem) {
  const auto lookup = std::make_shared<Lookup>(host, port);
  std::thread([lookup] { lookup->run(); }).detach();
  return lookup->wait(end, problem);
}

/// Connects a non-blocking `socket` before `end`. @return 0 or an errno
int connectSocket(int socket, const addrinfo& address, Clock::time_point end) {
  if (connect(socket, address.ai_addr, address.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  pollfd polled{socket, POLLOUT, 0};
  int count = 0;
  do {
    count = poll(&polled, 1, millisecondsLeft(end));
  } while (count < 0 && errno == EINTR);
  if (count == 0) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

}  // namespace

Connection connectTo(const std::string& host, std::uint16_t port, std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  const bool isBracketed = host.starts_with('[') && host.ends_with(']');
  Connection made;
  const auto addresses =
      lookUp(isBracketed ? host.substr(1, host.size() - 2) : host, port, end, made.problem);
  int remaining = 0;
  for (const auto* address = addresses.get(); address != nullptr; address = address->ai_next) {
    ++remaining;
  }
  for (const auto* address = addresses.get(); address != nullptr; address = address->ai_next) {
    const auto now = Clock::now();
    // An address that drops packets must leave time for the addresses after it.
    const auto endOfTry = now + std::max(end - now, Clock::duration::zero()) / remaining--;
    base::UniqueFd fd(socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int error = fd ? connectSocket(fd.get(), *address, endOfTry) : errno;
    if (error == 0) return {std::move(fd), {}};
    made.problem = textOf(error);
  }
  return made;
}

std::string firstLine(int socket, const std::string& request, std::chrono::milliseconds limit,
                      std::string& problem) {
  const auto end = Clock::now() + limit;
  // A request of a few hundred bytes fits into the buffer of a new connection.
  if (send(socket, request.data(), request.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(request.size())) {
    problem = textOf(errno);
    return {};
  }
  std::string line;
  for (;;) {
    pollfd polled{socket, POLLIN, 0};
    const int count = poll(&polled, 1, millisecondsLeft(end));
    if (count < 0 && errno == EINTR) continue;
    std::array<char, kMaxLine> bytes{};
    const auto got = count > 0 ? recv(socket, bytes.data(), bytes.size(), 0) : 0;
    if (got <= 0) {
      problem = count == 0 ? "no answer in time"
                : got < 0  ? textOf(errno)
                           : "it ends the connection without an answer";
      return {};
    }
    line.append(bytes.data(), static_cast<std::size_t>(got));
    const auto newline = line.find('\n');
    if (newline == std::string::npos && line.size() < kMaxLine) continue;
    line.resize(std::min({newline, line.size(), kMaxLine}));
    if (line.ends_with('\r')) line.pop_back();
    return line;
  }
}

}  // namespace client
