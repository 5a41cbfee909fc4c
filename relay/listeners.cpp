#include "relay/listeners.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>

#include <charconv>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "base/log_line.h"

namespace relay {

namespace {

constexpr std::string_view kUnixPrefix = "unix:";
/// Every user may connect, as with a port on loopback. allow-users and deny-users restrict the
/// users.
constexpr mode_t kSocketMode = 0666;

[[noreturn]] void fail(const std::string& address) {
  throw std::system_error(errno, std::generic_category(), address);
}

base::UniqueFd bound(int family, const sockaddr* address, socklen_t length,
                     const std::string& shown) {
  base::UniqueFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) fail(shown);
  const int on = 1;
  if (family != AF_UNIX) setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (family == AF_INET6) setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
  if (bind(fd.get(), address, length) != 0) fail(shown);
  if (::listen(fd.get(), kBacklog) != 0) fail(shown);
  return fd;
}

base::UniqueFd listenOnUnix(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    throw std::invalid_argument("unix:" + path + " is no path of 1 to 107 bytes");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  struct stat status {};
  if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) unlink(path.c_str());
  auto fd = bound(AF_UNIX, reinterpret_cast<const sockaddr*>(&address), sizeof(address), path);
  if (chmod(path.c_str(), kSocketMode) != 0) fail(path);
  return fd;
}

base::UniqueFd listenOn(const std::string& text) {
  if (text.starts_with(kUnixPrefix)) return listenOnUnix(text.substr(kUnixPrefix.size()));
  const auto colon = text.rfind(':');
  const std::string_view digits =
      colon == std::string::npos ? std::string_view() : std::string_view(text).substr(colon + 1);
  std::uint16_t port = 0;
  const auto [rest, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  std::string host = text.substr(0, colon == std::string::npos ? 0 : colon);
  const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (isBracketed) host = host.substr(1, host.size() - 2);
  sockaddr_in four{};
  sockaddr_in6 six{};
  if (!digits.empty() && error == std::errc() && rest == digits.data() + digits.size()) {
    four.sin_family = AF_INET;
    four.sin_port = six.sin6_port = htons(port);
    six.sin6_family = AF_INET6;
    if (!isBracketed && inet_pton(AF_INET, host.c_str(), &four.sin_addr) == 1) {
      return bound(AF_INET, reinterpret_cast<const sockaddr*>(&four), sizeof(four), text);
    }
    if (isBracketed && inet_pton(AF_INET6, host.c_str(), &six.sin6_addr) == 1) {
      return bound(AF_INET6, reinterpret_cast<const sockaddr*>(&six), sizeof(six), text);
    }
  }
  throw std::invalid_argument("\"" + text + "\" is not ADDRESS:PORT, [ADDRESS]:PORT or unix:PATH");
}

std::vector<base::UniqueFd> passedBySystemd() {
  std::vector<base::UniqueFd> sockets;
  const int count = sd_listen_fds(1);
  for (int index = 0; index < count; index++) {
    base::UniqueFd fd(SD_LISTEN_FDS_START + index);
    if (sd_is_socket(fd.get(), AF_UNSPEC, SOCK_STREAM, 1) <= 0) {
      throw std::invalid_argument("systemd passed a descriptor that is no listening socket");
    }
    fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
    sockets.push_back(std::move(fd));
  }
  return sockets;
}

std::vector<base::UniqueFd> usual() {
  std::vector<base::UniqueFd> sockets;
  for (const char* address : kUsualAddresses) {
    try {
      sockets.push_back(listenOn(address));
    } catch (const std::system_error& error) {
      if (sockets.empty() && address == *std::rbegin(kUsualAddresses)) throw;
      logLine(LOG_WARNING, "relay: cannot listen on %s", error.what());
    }
  }
  return sockets;
}

}  // namespace

std::vector<base::UniqueFd> listen(const std::vector<std::string>& addresses) {
  if (addresses.empty()) {
    auto sockets = passedBySystemd();
    return sockets.empty() ? usual() : std::move(sockets);
  }
  std::vector<base::UniqueFd> sockets;
  for (const auto& address : addresses) sockets.push_back(listenOn(address));
  return sockets;
}

}  // namespace relay
