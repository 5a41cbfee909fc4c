// The source of the addresses of names.
#pragma once

#include <map>
#include <optional>
#include <string>
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
};

}  // namespace pac_engine
