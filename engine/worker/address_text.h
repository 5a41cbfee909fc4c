// Parses and formats IP addresses in the forms that scripts use.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pac_worker {

/// An address of either family, as 16 bytes in network order. An IPv4 address is stored as
/// IPv4-mapped IPv6 (RFC 4291, 2.5.5.2), so that both spellings of one address are equal.
using Address = std::array<std::uint8_t, 16>;

/// A dotted quad as a number in host byte order. The quad has four decimal fields of one to three
/// digits, each from 0 to 255. A field with leading zeros is also decimal. isInNet and masks use
/// addresses of this form.
std::optional<std::uint32_t> parseQuad(std::string_view text);

/// An IPv4 literal in the forms that browsers accept in a URL: one to four fields, which are
/// decimal, octal after a "0" or hexadecimal after "0x". The last field fills the remaining bytes.
/// One trailing dot is ignored.
std::optional<std::uint32_t> parseIpv4(std::string_view text);

/// An IPv6 literal without brackets and without a zone. The last two groups may be written as an
/// IPv4 address with four fields in the forms of parseIpv4().
std::optional<Address> parseIpv6(std::string_view text);

/// The address of a literal of either family.
std::optional<Address> parseAddress(std::string_view text);

/// "10.0.0.1"
std::string textOfIpv4(std::uint32_t quad);

/// RFC 5952: lower case, the longest run of zero groups as "::", no dotted quad inside.
std::string textOfIpv6(const Address& address);

/// Returns true if `address` is in `prefix` ("address/length"). Returns false if `address` or
/// `prefix` is not valid. White space around the two parts of `prefix` is ignored.
bool liesInPrefix(std::string_view address, std::string_view prefix);

}  // namespace pac_worker
