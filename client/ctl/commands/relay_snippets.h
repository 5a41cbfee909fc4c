// The snippets that make proxymanager-relay the proxy of programs that read a fixed proxy setting.
// A snippet is a link in a folder of /etc to a file that the relay's package installs. If the
// package is removed but the link stays, the link leads to no file and has no effect.
#pragma once

#include <string>
#include <vector>

namespace client {

/// The paths of the links that are in place, in a fixed order.
std::vector<std::string> relayLinks();

/// Makes a link for each snippet whose folder exists on this system. If one link cannot be made,
/// the function makes no link.
/// @return the links that are in place
/// @throws Failure (kOutput) if a file of another kind is in the place of a link, if the snippets
///         are not installed, or if a link cannot be made
std::vector<std::string> putRelayLinks();

/// Removes the links. @return the links that were in place
/// @throws Failure (kOutput) if a link cannot be removed
std::vector<std::string> removeRelayLinks();

}  // namespace client
