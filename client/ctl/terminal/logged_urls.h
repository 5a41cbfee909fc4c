// The URLs of a list or of the access log of a proxy.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace client {

/// Longest log in bytes.
inline constexpr std::size_t kMaxLogBytes = 64U << 20U;

/// The URL that a line names: the line itself if it has no blank in it, else what follows a method
/// such as GET in it, as in the logs of squid (its own form and the common one), tinyproxy and
/// proxymanager-relay. A host and port behind CONNECT is an https URL. Empty if there is none.
std::string urlOfLine(std::string_view line);

/// The URLs of the file `name`, or of standard input for "-", in order; lines without one are
/// skipped. Throws Failure (kNoInput) if it cannot be read or is longer than kMaxLogBytes.
std::vector<std::string> readLoggedUrls(const std::string& name);

}  // namespace client
