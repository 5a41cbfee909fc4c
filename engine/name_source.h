// The source of the addresses of names.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace pac_engine {

/// Given addresses of names, which replace a lookup.
using StaticNames = std::map<std::string, std::vector<std::string>>;

/// The source of the addresses of names.
struct NameSource {
  bool offline = false;                    ///< no name but localhost has an address
  std::optional<StaticNames> staticNames;  ///< if set, no other name but localhost has one
  std::string nameServers;  ///< "address[:port],..." to ask; empty for the device's own
};

}  // namespace pac_engine
