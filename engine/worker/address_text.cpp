#include "engine/worker/address_text.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstddef>

namespace pac_worker {
namespace {

constexpr unsigned kMappedPrefixBits = 96;  // bits before the IPv4 address in its mapped form
constexpr std::uint64_t kPastQuad = 1ULL << 32U;
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

// A number that consists only of digits of `base` and is below `limit`.
std::optional<std::uint64_t> numberBelow(std::uint64_t limit, std::string_view digits, int base) {
  std::uint64_t value = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stopped, error] = std::from_chars(digits.data(), end, value, base);
  if (error != std::errc() || stopped != end || value >= limit) return std::nullopt;
  return value;
}

// One field of an IPv4 literal; "0x" without a digit is 0.
std::optional<std::uint64_t> ipv4Field(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    text.remove_prefix(2);
    return text.empty() ? 0 : numberBelow(kPastQuad, text, 16);
  }
  return numberBelow(kPastQuad, text, text.size() > 1 && text.front() == '0' ? 8 : 10);
}

Address mapped(std::uint32_t quad) {
  Address address{};
  address[10] = address[11] = 0xFF;
  for (std::size_t i = 0; i < 4; ++i)
    address[12 + i] = static_cast<std::uint8_t>(quad >> (24 - 8 * i));
  return address;
}

// The IPv4 address at the end of an IPv6 literal, as two groups. Nothing if `tail` is not an IPv4
// address.
std::optional<std::string> asGroups(std::string_view tail) {
  constexpr int kDots = 3;
  int dots = 0;
  for (const char c : tail) dots += c == '.' ? 1 : 0;
  const std::optional<std::uint32_t> quad = parseIpv4(tail);
  if (!quad || dots != kDots || tail.back() == '.') return std::nullopt;
  char groups[sizeof "ffff:ffff"];
  char* at = std::to_chars(groups, std::end(groups), *quad >> 16U, 16).ptr;
  *at++ = ':';
  at = std::to_chars(at, std::end(groups), *quad & 0xFFFFU, 16).ptr;
  return std::string(groups, at);
}

bool agree(const Address& a, const Address& b, unsigned bits) {
  for (std::size_t i = 0; i < a.size() && bits > 0; ++i) {
    const unsigned here = bits < 8 ? bits : 8;
    const unsigned mask = 0xFF00U >> here;
    if (((a[i] ^ b[i]) & mask & 0xFFU) != 0) return false;
    bits -= here;
  }
  return true;
}

}  // namespace

std::optional<std::uint32_t> parseQuad(std::string_view text) {
  std::uint32_t quad = 0;
  for (int field = 0; field < 4; ++field) {
    const std::size_t dot = field < 3 ? text.find('.') : text.size();
    if (dot == text.npos || dot > 3) return std::nullopt;
    const std::optional<std::uint64_t> value = numberBelow(256, text.substr(0, dot), 10);
    if (!value) return std::nullopt;
    quad = (quad << 8U) | static_cast<std::uint32_t>(*value);
    if (field < 3) text.remove_prefix(dot + 1);
  }
  return quad;
}

std::optional<std::uint32_t> parseIpv4(std::string_view text) {
  if (text.ends_with('.')) text.remove_suffix(1);
  std::uint64_t quad = 0;
  for (unsigned field = 0; field < 4; ++field) {
    const std::size_t dot = text.find('.');
    const std::optional<std::uint64_t> value = ipv4Field(text.substr(0, dot));
    if (!value) return std::nullopt;
    const unsigned bitsLeft = 8 * (4 - field);
    if (dot == text.npos) {
      if (*value >> bitsLeft != 0) return std::nullopt;
      return static_cast<std::uint32_t>(quad << bitsLeft | *value);
    }
    if (*value > 0xFF) return std::nullopt;
    quad = quad << 8U | *value;
    text.remove_prefix(dot + 1);
  }
  return std::nullopt;
}

std::optional<Address> parseIpv6(std::string_view text) {
  std::string whole(text);
  if (text.find('.') != text.npos) {
    const std::size_t tail = text.rfind(':') + 1;
    const std::optional<std::string> groups =
        tail == 0 ? std::nullopt : asGroups(text.substr(tail));
    if (!groups) return std::nullopt;
    whole.replace(tail, whole.npos, *groups);
  }
  // The system's parser reads only up to a NUL. So a text with a NUL inside is refused: the parser
  // must not accept the part before it.
  if (whole.size() >= INET6_ADDRSTRLEN || whole.find('\0') != whole.npos) return std::nullopt;
  Address address{};
  if (inet_pton(AF_INET6, whole.c_str(), address.data()) != 1) return std::nullopt;
  return address;
}

std::optional<Address> parseAddress(std::string_view text) {
  if (const std::optional<std::uint32_t> quad = parseIpv4(text)) return mapped(*quad);
  return parseIpv6(text);
}

std::string textOfIpv4(std::uint32_t quad) {
  std::string text;
  for (unsigned shift = 32; shift > 0; shift -= 8) {
    text += std::to_string(quad >> (shift - 8) & 0xFFU);
    if (shift > 8) text += '.';
  }
  return text;
}

std::string textOfIpv6(const Address& address) {
  constexpr std::size_t kGroups = 8;
  const auto group = [&](std::size_t i) {
    return static_cast<unsigned>(address[2 * i] << 8U | address[2 * i + 1]);
  };
  std::size_t longest = 0;
  std::size_t from = kGroups;
  for (std::size_t i = 0, run = 0; i < kGroups; ++i) {
    run = group(i) == 0 ? run + 1 : 0;
    if (run <= longest || run < 2) continue;
    longest = run;
    from = i + 1 - run;
  }
  std::string text;
  for (std::size_t i = 0; i < kGroups; ++i) {
    if (i == from) {
      text += "::";
      i += longest - 1;
      continue;
    }
    if (!text.empty() && text.back() != ':') text += ':';
    char digits[4];
    text.append(digits, std::to_chars(digits, std::end(digits), group(i), 16).ptr);
  }
  return text;
}

bool liesInPrefix(std::string_view address, std::string_view prefix) {
  const std::size_t slash = prefix.find('/');
  if (slash == prefix.npos) return false;
  const std::string_view base = trimmed(prefix.substr(0, slash));
  const bool ipv4 = parseIpv4(base).has_value();
  const std::optional<Address> left = parseAddress(address);
  const std::optional<Address> right = parseAddress(base);
  const std::optional<std::uint64_t> length =
      numberBelow(ipv4 ? 33 : 129, trimmed(prefix.substr(slash + 1)), 10);
  if (!left || !right || !length) return false;
  const auto bits = static_cast<unsigned>(*length);
  return agree(*left, *right, ipv4 ? kMappedPrefixBits + bits : bits);
}

}  // namespace pac_worker
