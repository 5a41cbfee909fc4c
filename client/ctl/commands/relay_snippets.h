// The snippets that make proxymanager-relay the proxy of programs which read a fixed one: links in
// the folders of /etc to the files that the relay's package installs. A link that is left behind
// after the package leads nowhere and sets nothing.
#pragma once

#include <string>
#include <vector>

namespace client {

/// The links that are in place, in a fixed order.
std::vector<std::string> relayLinks();

/// Makes the links, in those folders that exist. All or none. @return the links that are in place
/// @throws Failure (kOutput) if a file of another kind stands in the place of one, if the
///         snippets are not installed, or if a link cannot be made
std::vector<std::string> putRelayLinks();

/// Removes the links. @return those that were in place
/// @throws Failure (kOutput) if a link cannot be removed
std::vector<std::string> removeRelayLinks();

}  // namespace client
