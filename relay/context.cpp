#include "relay/context.h"

#include <netinet/in.h>
#include <sys/random.h>

#include <algorithm>
#include <cstring>

#include "base/ascii.h"

namespace relay {

namespace {

std::string newName() {
  unsigned char bytes[8] = {};
  if (getrandom(bytes, sizeof(bytes), 0) < 0) std::memset(bytes, 0, sizeof(bytes));
  std::string name = "proxymanager-relay-";
  for (const auto byte : bytes) {
    name += "0123456789abcdef"[byte >> 4U];
    name += "0123456789abcdef"[byte & 15U];
  }
  return name;
}

std::uint16_t portOf(const sockaddr* address) {
  if (address->sa_family == AF_INET) {
    return reinterpret_cast<const sockaddr_in*>(address)->sin_port;
  }
  return reinterpret_cast<const sockaddr_in6*>(address)->sin6_port;
}

bool isAny(const unsigned char* bytes) {
  static constexpr unsigned char kFour[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  static constexpr unsigned char kSix[16] = {};
  return std::memcmp(bytes, kFour, 16) == 0 || std::memcmp(bytes, kSix, 16) == 0;
}

std::string decoded(std::string_view text) {
  std::string plain;
  for (std::size_t index = 0; index < text.size(); index++) {
    const int high =
        text[index] == '%' && index + 2 < text.size() ? base::hexValue(text[index + 1]) : -1;
    const int low = high >= 0 ? base::hexValue(text[index + 2]) : -1;
    if (low < 0) {
      plain += text[index];
      continue;
    }
    plain += static_cast<char>(high * 16 + low);
    index += 2;
  }
  return plain;
}

}  // namespace

Context::Context(asio::io_context& io, const Configured& from, std::vector<Protocol::endpoint> own)
    : loop(io),
      configured(from),
      listens(std::move(own)),
      name(newName()),
      sweeper(io),
      names(io),
      questions(io),
      report(io),
      penalties(from.configuration.penaltyTime),
      proxies(io, name),
      peers(from.configuration.allowFrom),
      allowed(from.configuration.allowUsers),
      denied(from.configuration.denyUsers),
      withCredentials(from.configuration.credentialsFor) {}

bool Context::isOurs(const sockaddr* address) const {
  unsigned char bytes[16];
  if (!addressBytes(address, bytes)) return false;
  return std::any_of(listens.begin(), listens.end(), [&](const Protocol::endpoint& listen) {
    unsigned char own[16];
    if (!addressBytes(listen.data(), own)) return false;
    if (portOf(listen.data()) != portOf(address)) return false;
    // If a program connects to the unspecified address, the kernel connects it to loopback.
    if (isAny(bytes)) return isAny(own) || isLoopback(listen.data());
    return isAny(own) ? isOwnOrLinkLocal(address) : std::memcmp(own, bytes, sizeof(own)) == 0;
  });
}

Credentials Context::credentialsFor(const Entry& entry, const std::string& mode, const Peer& peer) {
  const bool isAllowed = configured.configuration.credentialsForAll ||
                         (peer.isKnown() && withCredentials.has(peer.user));
  if (!isAllowed || entry.isDirect()) return {};
  if (!entry.credentials.empty()) {
    const std::string_view text = entry.credentials;
    const auto colon = std::min(text.find(':'), text.size());
    return {decoded(text.substr(0, colon)),
            colon < text.size() ? decoded(text.substr(colon + 1)) : std::string()};
  }
  const std::string host = base::lowerCase(entry.host);
  const std::string place = host + ":" + std::to_string(entry.port);
  const auto isThis = [&](const std::string& listed) {
    return base::equalIgnoringCase(listed, host) || base::equalIgnoringCase(listed, place);
  };
  const auto& hosts = configured.configuration.credentialsHosts;
  // A script can name any host. Without this check, such a host would get the password.
  if (mode != "manual" && std::none_of(hosts.begin(), hosts.end(), isThis)) return {};
  for (const auto& [listed, credentials] : configured.credentials) {
    if (isThis(listed)) return credentials;
  }
  return {};
}

}  // namespace relay
