// The PAC script that a command names.
#pragma once

#include <cstddef>
#include <string>

namespace client {

/// Longest script in bytes, equal to the daemon's limit (fetcher::kMostScriptBytes): a script that
/// loads here also loads in the daemon.
inline constexpr std::size_t kMaxScriptBytes = 512'000;

/// Reads the regular file `name`, or standard input for "-", unchanged. The wait for standard input
/// has no limit, because a person may type. Throws Failure: kNoInput if the file cannot be read,
/// kRefused if it is longer than kMaxScriptBytes.
std::string readScript(const std::string& name);

/// The name of the file `name` in messages; for "-", the name of standard input.
std::string shownName(const std::string& name);

}  // namespace client
