// The helpers of PAC scripts that deal in host names and addresses, free of any engine type.
//
// Argument conversion (what a number or null in the place of a text means) is the engine binding's;
// here every text is UTF-8. The date and time helpers are in pac_dates.h, shExpMatch's matching in
// shell_expression.h. Address literals never reach the environment's resolver, nor does a text that
// cannot be a host name. Nothing here throws but std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "engine/worker/pac_environment.h"

namespace pac_worker {

/// What getClientVersion() says.
inline constexpr std::string_view kClientVersion = "1.0";

/// What myIpAddress() says where the device has no address.
inline constexpr std::string_view kLoopbackAddress = "127.0.0.1";

/// Longest name that is looked up: an ASCII name has 253 bytes at most, an international one at
/// most four bytes of UTF-8 for each of them.
inline constexpr std::size_t kLongestName = 1024;

/// True where `host` has no dot and is no IPv6 literal, bare or in brackets.
bool isPlainHostName(std::string_view host);

/// True where `host` ends in `domain`; case counts, labels do not.
bool dnsDomainIs(std::string_view host, std::string_view domain);

/// True where both are equal, or `hostdom` starts with `host` and a dot.
bool localHostOrDomainIs(std::string_view host, std::string_view hostdom);

/// The number of dots.
std::size_t dnsDomainLevels(std::string_view host);

/// True where `host` is an IPv4 literal or a name with an IPv4 address.
bool isResolvable(PacEnvironment& environment, std::string_view host);

/// A literal of either family as it is, else the first IPv4 address of the name.
std::optional<std::string> dnsResolve(PacEnvironment& environment, std::string_view host);

/// True where the IPv4 address of `host`, a literal or a name, agrees with `pattern` in the bits of
/// `mask`. A pattern or mask that is no dotted quad is answered without a lookup.
bool isInNet(PacEnvironment& environment, std::string_view host, std::string_view pattern,
             std::string_view mask);

/// The signed number of a dotted quad: fields are taken modulo 256, those missing or unreadable are
/// 0, those past the fourth are ignored.
std::int32_t convertAddr(std::string_view text);

/// The IPv4 address that reaches the outside, else kLoopbackAddress.
std::string myIpAddress(PacEnvironment& environment);

/// True where `host` is a literal or a name with an address, of either family.
bool isResolvableEx(PacEnvironment& environment, std::string_view host);

/// All addresses of `host`, separated by ";"; a literal as it is; "" where there are none.
std::string dnsResolveEx(PacEnvironment& environment, std::string_view host);

/// True where the literal `address` lies in `prefix`, written "address/length".
bool isInNetEx(std::string_view address, std::string_view prefix);

/// All usable addresses of the device, separated by ";".
std::string myIpAddressEx(PacEnvironment& environment);

/// The literals of a ";"-separated list, IPv6 first, otherwise in their order and spelling; nothing
/// where an entry is no literal or there is no entry.
std::optional<std::string> sortIpAddressList(std::string_view list);

}  // namespace pac_worker
