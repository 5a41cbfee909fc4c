// The source of the addresses of names.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pac_engine {

/// Names with their addresses, used instead of a lookup.
using StaticNames = std::map<std::string, std::vector<std::string>>;

/// The source of the addresses of names.
struct NameSource {
  bool offline = false;  ///< only localhost has an address
  std::optional<StaticNames>
      staticNames;  ///< if set, only these names and localhost have addresses
  std::string
      nameServers;  ///< the servers to ask, "address[:port],..."; empty: the device's servers
  /// Gets each name that is not looked up, because the evaluation has looked up its maximum number
  /// of names. It may get a name more than once.
  std::function<void(std::string_view name)> onRefused;
};

}  // namespace pac_engine
