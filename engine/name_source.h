// Where the library takes the addresses of names from.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace pac_engine {

/// Addresses of names that are given instead of being looked up.
using StaticNames = std::map<std::string, std::vector<std::string>>;

/// Where addresses of names come from.
struct NameSource {
  bool offline = false;                    ///< no name has an address
  std::optional<StaticNames> staticNames;  ///< if set, no other name has one
  std::string nameServers;  ///< "address[:port],..." to ask; empty for the device's own
};

}  // namespace pac_engine
