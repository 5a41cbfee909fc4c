// The PAC script that a command names.
#pragma once

#include <cstddef>
#include <string>

namespace client {

/// Longest script in bytes: what the daemon downloads at most, so that what loads here loads there.
inline constexpr std::size_t kMaxScriptBytes = 512'000;

/// The bytes of the regular file `name`, or of standard input for "-", as they are. Standard input
/// is waited for without a limit: it may be a person.
/// Throws Failure: kNoInput where it cannot be read, kRefused where it is longer than
/// kMaxScriptBytes.
std::string readScript(const std::string& name);

/// What messages call that file.
std::string shownName(const std::string& name);

}  // namespace client
