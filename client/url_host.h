// The host of a URL, as the daemon finds it.
#pragma once

#include <string>

namespace client {

/// @return empty where there is none
std::string hostOf(const std::string& url);

}  // namespace client
