// URLs from a file, and from the access log of a proxy. A byte order mark at the start of a file is
// removed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace client {

/// Longest file of URLs, in bytes. This is enough for about ten thousand URLs; the daemon needs
/// minutes to answer them.
inline constexpr std::size_t kMaxListBytes = 1U << 20U;

/// The bytes of the file `name`, or of standard input for "-". Throws Failure: kNoInput if the file
/// cannot be read or is longer than kMaxListBytes.
std::string readListFile(const std::string& name);

/// The URLs of the file `name`, or of standard input for "-". Each line has one URL; blanks around
/// the URL are removed. Empty lines and lines that begin with "#" are skipped. Throws Failure:
/// kNoInput if the file cannot be read or is longer than kMaxListBytes.
std::vector<std::string> readUrls(const std::string& name);

/// Longest access log, in bytes: a few hundred thousand requests.
inline constexpr std::size_t kMaxLogBytes = 64U << 20U;

/// The URLs of the list or the access log `name` (logged_url.h), or of standard input for "-".
/// Throws Failure: kNoInput if the file cannot be read or is longer than kMaxLogBytes.
std::vector<std::string> readLoggedUrls(const std::string& name);

}  // namespace client
