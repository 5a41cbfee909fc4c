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

/// @param settings the settings of all files together
/// @param password the password that `settings` refer to
/// @param network the network managers' configuration in force, or null
Choice choose(const FileSettings& settings, const std::string& password,
              const NetworkConfiguration* network);

/// The reason why `settings` cannot be used, for example mode manual without a proxy URL; empty if
/// they can be used.
std::string missingKey(const FileSettings& settings);

}  // namespace settings
