#include "engine/worker/address_text.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstddef>
#include <string>

namespace pac_worker {
namespace {

constexpr unsigned kMappedPrefixBits = 96;  // of an IPv4 address within its IPv4-mapped form

// A decimal number of one to three digits, `limit` at most.
std::optional<unsigned> shortNumber(std::string_view text, unsigned limit) {
  if (text.empty() || text.size() > 3) return std::nullopt;
  unsigned value = 0;
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stopped != end || value > limit) return std::nullopt;
  return value;
}

Address mapped(std::uint32_t quad) {
  Address address{};
  address[10] = address[11] = 0xFF;
  for (std::size_t i = 0; i < 4; ++i)
    address[12 + i] = static_cast<std::uint8_t>(quad >> (24 - 8 * i));
  return address;
}

std::optional<Address> parseIpv6(std::string_view text) {
  // The system's parser wants a terminated text: one with a NUL inside must not pass as its head.
  if (text.size() >= INET6_ADDRSTRLEN || text.find('\0') != text.npos) return std::nullopt;
  Address address{};
  if (inet_pton(AF_INET6, std::string(text).c_str(), address.data()) != 1) return std::nullopt;
  return address;
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
    if (dot == text.npos) return std::nullopt;
    const std::optional<unsigned> value = shortNumber(text.substr(0, dot), 255);
    if (!value) return std::nullopt;
    quad = (quad << 8U) | *value;
    if (field < 3) text.remove_prefix(dot + 1);
  }
  return quad;
}

bool isIpv6Literal(std::string_view text) {
  return parseIpv6(text).has_value();
}

bool isAddressLiteral(std::string_view text) {
  return parseAddress(text).has_value();
}

std::optional<Address> parseAddress(std::string_view text) {
  if (const std::optional<std::uint32_t> quad = parseQuad(text)) return mapped(*quad);
  return parseIpv6(text);
}

bool liesInPrefix(std::string_view address, std::string_view prefix) {
  const std::size_t slash = prefix.find('/');
  if (slash == prefix.npos) return false;
  const std::string_view base = prefix.substr(0, slash);
  const bool quad = parseQuad(base).has_value();
  const std::optional<Address> left = parseAddress(address);
  const std::optional<Address> right = parseAddress(base);
  const std::optional<unsigned> bits = shortNumber(prefix.substr(slash + 1), quad ? 32 : 128);
  if (!left || !right || !bits) return false;
  return agree(*left, *right, quad ? kMappedPrefixBits + *bits : *bits);
}

}  // namespace pac_worker
