#include "engine/host/own_address.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

#include "base/unique_fd.h"
#include "engine/wire/protocol.h"

namespace pac_engine {

namespace {

using IfAddrs = std::unique_ptr<ifaddrs, decltype(&freeifaddrs)>;

// An address of the block for documentation (RFC 5737). No local network has such an address, so
// the kernel uses the default route. connect() on a UDP socket looks up the route and sends
// nothing.
constexpr std::uint32_t kOutside = 0xC0000201;  // 192.0.2.1
// The discard port: connect() needs a port, but sends nothing to it.
constexpr std::uint16_t kAnyPort = 9;

constexpr std::uint32_t kLinkLocalMask = 0xFFFF0000;
constexpr std::uint32_t kLinkLocal = 0xA9FE0000;  // 169.254.0.0/16, RFC 3927

std::string textOf(int family, const void* address) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, address, text, sizeof text);
  return text;
}

std::string routeSource() {
  const base::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(kOutside);
  address.sin_port = htons(kAnyPort);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (!socket || connect(socket.get(), generic, size) != 0) return {};
  if (getsockname(socket.get(), generic, &size) != 0) return {};
  if (address.sin_addr.s_addr == htonl(INADDR_ANY)) return {};
  return textOf(AF_INET, &address.sin_addr);
}

/// Copies the address at `generic` into the structure of its family. A cast is not possible,
/// because not every machine can read unaligned values.
template <typename Address>
Address as(const sockaddr* generic) {
  Address address;
  std::memcpy(&address, generic, sizeof address);
  return address;
}

/// The address of `entry` as a text; empty if the address is not usable.
std::string usable(const ifaddrs& entry) {
  constexpr unsigned kWanted = IFF_UP;
  if (entry.ifa_addr == nullptr || (entry.ifa_flags & (IFF_UP | IFF_LOOPBACK)) != kWanted)
    return {};
  if (entry.ifa_addr->sa_family == AF_INET) {
    const auto address = as<sockaddr_in>(entry.ifa_addr).sin_addr;
    const bool linkLocal = (ntohl(address.s_addr) & kLinkLocalMask) == kLinkLocal;
    return linkLocal ? std::string() : textOf(AF_INET, &address);
  }
  if (entry.ifa_addr->sa_family == AF_INET6) {
    const auto address = as<sockaddr_in6>(entry.ifa_addr).sin6_addr;
    return IN6_IS_ADDR_LINKLOCAL(&address) ? std::string() : textOf(AF_INET6, &address);
  }
  return {};
}

std::vector<std::string> interfaceAddresses() {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0) return {};
  const IfAddrs list(first, &freeifaddrs);
  std::vector<std::string> addresses;
  for (const auto* entry = first; entry != nullptr && addresses.size() < kMaxAddresses;
       entry = entry->ifa_next) {
    if (auto text = usable(*entry); !text.empty()) addresses.push_back(std::move(text));
  }
  return addresses;
}

}  // namespace

std::vector<std::string> ownAddresses(pac_engine::AddressFamily family) {
  if (family == pac_engine::AddressFamily::kAny) return interfaceAddresses();
  auto source = routeSource();
  if (source.empty()) return {};
  return {std::move(source)};
}

}  // namespace pac_engine
