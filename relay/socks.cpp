#include "relay/socks.h"

#include <arpa/inet.h>

namespace relay {

namespace {

constexpr unsigned char kConnect = 1;
constexpr unsigned char kCommandRefused = 7;
constexpr unsigned char kAddressRefused = 8;

unsigned char byteAt(std::string_view bytes, std::size_t index) {
  return static_cast<unsigned char>(bytes[index]);
}

std::uint16_t portAt(std::string_view bytes, std::size_t index) {
  return static_cast<std::uint16_t>(byteAt(bytes, index) << 8U | byteAt(bytes, index + 1));
}

std::string addressText(int family, std::string_view bytes) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(family, bytes.data(), text, sizeof(text)) != nullptr ? text : "";
}

std::string socks5Reply(unsigned char code) {
  std::string reply("\x05\x00\x00\x01\x00\x00\x00\x00\x00\x00", 10);
  reply[1] = static_cast<char>(code);
  return reply;
}

std::string socks4Reply(unsigned char code) {
  std::string reply(8, '\0');
  reply[1] = static_cast<char>(code);
  return reply;
}

SocksStep refused(std::string reply) {
  return {SocksState::kRefused, 0, std::move(reply), {}};
}

/// The last step of a handshake, with the destination that the client has sent. `host` is a name,
/// or an address in text form. `refusal` is the reply if the destination is not valid.
SocksStep done(std::size_t taken, const std::string& host, std::uint16_t port,
               std::string refusal) {
  const bool isIpv6 = host.find(':') != std::string::npos;
  const auto destination =
      readAuthority((isIpv6 ? "[" + host + "]" : host) + ":" + std::to_string(port), 0);
  if (!destination) return refused(std::move(refusal));
  return {SocksState::kDone, taken, {}, *destination};
}

}  // namespace

SocksStep readSocks5Greeting(std::string_view bytes) {
  if (bytes.size() < 2) return {};
  const std::size_t count = byteAt(bytes, 1);
  if (bytes.size() < 2 + count) return {};
  const bool offersNone = bytes.substr(2, count).find('\0') != std::string_view::npos;
  if (!offersNone) return refused(std::string("\x05\xFF", 2));
  return {SocksState::kDone, 2 + count, std::string("\x05\x00", 2), {}};
}

SocksStep readSocks5Request(std::string_view bytes) {
  if (bytes.size() < 5) return {};
  if (byteAt(bytes, 0) != 5 || byteAt(bytes, 2) != 0) return refused(socks5Reply(1));
  if (byteAt(bytes, 1) != kConnect) return refused(socks5Reply(kCommandRefused));
  constexpr std::size_t kAddressAt = 4;
  const auto kind = byteAt(bytes, 3);
  std::size_t length = 0;
  if (kind == 1) length = 4;
  if (kind == 3) length = std::size_t{1} + byteAt(bytes, kAddressAt);
  if (kind == 4) length = 16;
  if (length == 0) return refused(socks5Reply(kAddressRefused));
  const auto whole = kAddressAt + length + 2;
  if (bytes.size() < whole) return {};
  const auto address = bytes.substr(kAddressAt, length);
  std::string host;
  if (kind == 1) host = addressText(AF_INET, address);
  if (kind == 3) host = std::string(address.substr(1));
  if (kind == 4) host = addressText(AF_INET6, address);
  return done(whole, host, portAt(bytes, whole - 2), socks5Reply(kAddressRefused));
}

SocksStep readSocks4Request(std::string_view bytes) {
  if (bytes.size() < 9) return {};
  if (byteAt(bytes, 1) != kConnect) return refused(socks4Reply(91));
  const auto userEnd = bytes.find('\0', 8);
  if (userEnd == std::string_view::npos) {
    return bytes.size() - 8 > kMaxSocksUser ? refused(socks4Reply(91)) : SocksStep{};
  }
  if (userEnd - 8 > kMaxSocksUser) return refused(socks4Reply(91));
  const auto port = portAt(bytes, 2);
  const auto address = bytes.substr(4, 4);
  // If the address is 0.0.0.x, and x is not 0, a name follows.
  const bool hasName = address.substr(0, 3) == std::string_view("\0\0\0", 3) && address[3] != '\0';
  if (!hasName) {
    return done(userEnd + 1, addressText(AF_INET, address), port, socks4Reply(91));
  }
  const auto nameEnd = bytes.find('\0', userEnd + 1);
  if (nameEnd == std::string_view::npos) {
    return bytes.size() - userEnd - 1 > kMaxHostName ? refused(socks4Reply(91)) : SocksStep{};
  }
  const std::string name(bytes.substr(userEnd + 1, nameEnd - userEnd - 1));
  return done(nameEnd + 1, name, port, socks4Reply(91));
}

std::string socksReply(int version, SocksResult result) {
  if (version == 4) return socks4Reply(result == SocksResult::kConnected ? 90 : 91);
  switch (result) {
    case SocksResult::kConnected:
      return socks5Reply(0);
    case SocksResult::kNotAllowed:
      return socks5Reply(2);
    case SocksResult::kHostUnreachable:
      return socks5Reply(4);
    case SocksResult::kFailed:
      break;
  }
  return socks5Reply(1);
}

}  // namespace relay
