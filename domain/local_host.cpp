#include "domain/local_host.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "base/ascii.h"
#include "domain/canonical_url.h"

namespace domain {

namespace {

/// The host of `url` in lower case, without brackets, zone and port.
std::string hostOf(std::string_view url) {
  constexpr std::string_view kMark = "://";
  if (const auto mark = url.find(kMark); mark != std::string_view::npos) {
    url.remove_prefix(mark + kMark.size());
  }
  auto host = url.substr(0, url.find_first_of("/?#"));
  if (const auto at = host.rfind('@'); at != std::string_view::npos) host.remove_prefix(at + 1);
  if (host.starts_with('[')) {
    host = host.substr(1, host.find(']') - 1);
  } else if (host.find(':') == host.rfind(':')) {  // one colon at most: not an IPv6 address
    return foldedHost(host.substr(0, host.find(':')));
  }
  return base::lowerCase(host.substr(0, host.find('%')));
}

bool isLocal(in_addr address) {
  const auto number = ntohl(address.s_addr);
  return number >> 24U == 127 || number >> 16U == 0xA9FE || number == 0;
}

bool isLocal(const in6_addr& address) {
  if (IN6_IS_ADDR_V4MAPPED(&address)) {
    in_addr mapped{};
    std::memcpy(&mapped, &address.s6_addr[12], sizeof mapped);
    return isLocal(mapped);
  }
  return IN6_IS_ADDR_LOOPBACK(&address) || IN6_IS_ADDR_UNSPECIFIED(&address) ||
         IN6_IS_ADDR_LINKLOCAL(&address);
}

}  // namespace

bool isLocalUrl(std::string_view url) {
  auto host = hostOf(url);
  if (host.ends_with('.')) host.pop_back();
  if (host == "localhost" || host.ends_with(".localhost")) return true;
  // inet_aton() ignores a blank and everything after it.
  if (host.find_first_of(base::kBlanks) != std::string::npos) return false;
  in_addr v4{};
  if (inet_aton(host.c_str(), &v4) != 0) return isLocal(v4);
  in6_addr v6{};
  return inet_pton(AF_INET6, host.c_str(), &v6) == 1 && isLocal(v6);
}

}  // namespace domain
