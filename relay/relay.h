// Loads the configuration of the relay, and runs the relay on one thread.
#pragma once

#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"
#include "relay/configuration.h"

namespace relay {

/// The signals that end the relay.
inline constexpr int kEndSignals[] = {SIGTERM, SIGINT};

/// The configuration with the credentials file that it names.
struct Configured {
  Configuration configuration;
  std::vector<std::pair<std::string, Credentials>> credentials;  ///< by host, see readCredentials()
  std::vector<std::string> warnings;  ///< for people; the configuration may still be used
};

/// Reads `path` and the credentials file that it names. It is a problem if a user or a group of
/// deny-users does not exist: the name may be misspelt, and the intended user could then use the
/// relay. If `mayBeMissing`, a missing `path` counts as an empty file. Throws only std::bad_alloc.
/// @return the problems; `configured` may be used only if there are no problems
std::vector<Problem> load(const std::string& path, bool mayBeMissing, Configured& configured);

/// Runs until one of kEndSignals arrives, and then ends the process with status 0. The caller must
/// have blocked these signals; run() unblocks them when it can handle them. The calling thread is
/// the relay's thread. Name lookups and the client library use threads of their own. Throws
/// std::exception if the relay cannot start.
int run(const Configured& configured, std::vector<base::UniqueFd> listeners);

}  // namespace relay
