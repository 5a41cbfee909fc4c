// IP addresses as scripts write them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace pac_worker {

/// An address of either family, in 16 bytes of network order; IPv4 is held as IPv4-mapped IPv6
/// (RFC 4291, 2.5.5.2), so that both spellings of one address are equal.
using Address = std::array<std::uint8_t, 16>;

/// A dotted quad as a number of host order: four fields of one to three decimal digits, each 0 to
/// 255; leading zeros are decimal too.
std::optional<std::uint32_t> parseQuad(std::string_view text);

/// True for an IPv6 literal without brackets and without a zone.
bool isIpv6Literal(std::string_view text);

/// True for a literal of either family.
bool isAddressLiteral(std::string_view text);

/// The address that a literal of either family names.
std::optional<Address> parseAddress(std::string_view text);

/// True where `address` lies in `prefix`, written "address/length"; false where one of them cannot
/// be read.
bool liesInPrefix(std::string_view address, std::string_view prefix);

}  // namespace pac_worker
