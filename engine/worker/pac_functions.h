// The helpers of PAC scripts for host names and addresses. They use no type of the engine.
//
// The binding to the engine (script_helpers.h) converts the arguments, so here every text is UTF-8.
// Helpers that are written in JavaScript are in helpers.js; the matching of shExpMatch is in
// shell_expression.h. The functions never ask the environment to resolve an address literal or a
// text that cannot be a host name. The functions throw only std::bad_alloc.
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

/// Longest name that is looked up, in bytes. An ASCII name has 253 bytes at most, and an
/// international name has at most four bytes of UTF-8 for each byte of its ASCII form.
inline constexpr std::size_t kLongestName = 1024;

/// Longest list that is sorted, in bytes. Sorting needs memory outside the engine's heap: 9 MiB for
/// a list of this length with the shortest addresses. A list of this length has about 6,500 IPv6
/// addresses.
inline constexpr std::size_t kLongestSortedList = 256U << 10U;

/// True if `host` has no dot and is not an address literal (of either family, with or without
/// brackets).
bool isPlainHostName(std::string_view host);

/// True if `host` ends in `domain`. Letter case counts; the match need not begin at a label.
bool dnsDomainIs(std::string_view host, std::string_view domain);

/// True if both texts are equal, or if `hostdom` starts with `host` and a dot.
bool localHostOrDomainIs(std::string_view host, std::string_view hostdom);

/// The number of dots.
std::size_t dnsDomainLevels(std::string_view host);

/// The first IPv4 address of the name. An IPv4 literal is returned in its usual form. An IPv6
/// literal has no IPv4 address.
std::optional<std::string> dnsResolve(PacEnvironment& environment, std::string_view host);

/// The IPv4 address with which the device reaches the outside. If there is none, the result is the
/// first usable address of either family. If the device has no usable address, the result is
/// kLoopbackAddress.
std::string myIpAddress(PacEnvironment& environment);

/// All addresses of `host`, separated by ";". A literal is returned in its usual form. The result
/// is "" if there are none.
std::string dnsResolveEx(PacEnvironment& environment, std::string_view host);

/// All usable addresses of the device, separated by ";". The result is kLoopbackAddress if there
/// are none.
std::string myIpAddressEx(PacEnvironment& environment);

/// The literals of a ";"-separated list: first IPv6, then IPv4, each family in ascending order.
/// Equal addresses keep their order, and all addresses keep their spelling. Empty entries are
/// dropped, and so are blanks and tabs around entries. Nothing if an entry is not a literal, if
/// there is no entry, or if the list is longer than kLongestSortedList.
std::optional<std::string> sortIpAddressList(std::string list);

}  // namespace pac_worker
