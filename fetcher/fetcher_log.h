// What every line of this folder begins with: "%s%s ", this and the function's name.
#pragma once

namespace fetcher {

inline constexpr char kLogClass[] = "PACFetcher-";

}  // namespace fetcher
