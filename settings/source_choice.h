// Which source decides: the administrator's file, a network manager, or the fallback.
#pragma once

#include <string>

#include "settings/configuration.h"
#include "settings/network_set.h"
#include "settings/settings_text.h"

namespace settings {

struct Choice {
  enum class Holder { kFile, kNetwork, kFallback };
  Holder holder = Holder::kFallback;
  Configuration configuration;
  std::string reason;                             ///< one line for people
  const NetworkConfiguration* network = nullptr;  ///< set if a network manager decides
};

/// @param settings what all files together set
/// @param password the password that they name, read
/// @param network the network managers' configuration in force, or null
Choice choose(const FileSettings& settings, const std::string& password,
              const NetworkConfiguration* network);

/// Why `settings` cannot be used as they are (mode manual without a proxy URL and the like), or an
/// empty text.
std::string missingKey(const FileSettings& settings);

}  // namespace settings
