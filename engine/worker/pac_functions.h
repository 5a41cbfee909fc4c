// The helpers of PAC scripts for host names and addresses. They use no type of the engine.
//
// The engine's binding converts the arguments: here every text is UTF-8. Helpers written in the
// language itself are in helpers.js, shExpMatch's matching is in shell_expression.h. The
// environment's resolver never sees an address literal or a text that cannot be a host name. The
// functions throw only std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "engine/worker/pac_environment.h"

namespace pac_worker {

/// The result of getClientVersion().
inline constexpr std::string_view kClientVersion = "1.0";

/// The result of myIpAddress() and myIpAddressEx() if the device has no address.
inline constexpr std::string_view kLoopbackAddress = "127.0.0.1";

/// Longest name that is looked up: an ASCII name has 253 bytes at most, an international one at
/// most four bytes of UTF-8 for each of them.
inline constexpr std::size_t kLongestName = 1024;

/// Longest list in bytes that is sorted. Sorting needs memory outside the engine's heap: 9 MiB for
/// the longest list of the shortest addresses. A list of IPv6 addresses may have about 6,500 of
/// them.
inline constexpr std::size_t kLongestSortedList = 256U << 10U;

/// True if `host` has no dot and is not an address literal of either family, also not an IPv6
/// literal in brackets.
bool isPlainHostName(std::string_view host);

/// True if `host` ends in `domain`; case counts, labels do not.
bool dnsDomainIs(std::string_view host, std::string_view domain);

/// True if both are equal, or `hostdom` starts with `host` and a dot.
bool localHostOrDomainIs(std::string_view host, std::string_view hostdom);

/// The number of dots.
std::size_t dnsDomainLevels(std::string_view host);

/// The first IPv4 address of the name; an IPv4 literal in its usual form. An IPv6 literal has none.
std::optional<std::string> dnsResolve(PacEnvironment& environment, std::string_view host);

/// The IPv4 address with which the device reaches the outside, else the first usable address of
/// either family, else kLoopbackAddress.
std::string myIpAddress(PacEnvironment& environment);

/// All addresses of `host`, separated by ";"; a literal in its usual form; "" if there are none.
std::string dnsResolveEx(PacEnvironment& environment, std::string_view host);

/// All usable addresses of the device, separated by ";"; else kLoopbackAddress.
std::string myIpAddressEx(PacEnvironment& environment);

/// The literals of a ";"-separated list: first IPv6, then IPv4, each family in ascending order.
/// Equal addresses keep their order, and all addresses keep their spelling. Blanks and tabs around
/// entries and empty entries are dropped. Nothing if an entry is not a literal, if there is no
/// entry, or if the list is longer than kLongestSortedList.
std::optional<std::string> sortIpAddressList(std::string list);

}  // namespace pac_worker
