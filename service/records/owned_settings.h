// Owns the texts of a list until the list is passed on.
#pragma once

#include <cstdlib>
#include <utility>

#include "service/records/proxy_config.h"

/// Frees the texts of a list unless they are released first. Logs nothing.
class OwnedSettings {
 public:
  OwnedSettings() = default;
  explicit OwnedSettings(ProxyUrlSettings settings) : mSettings(std::move(settings)) {}
  ~OwnedSettings() {
    for (const auto& setting : mSettings) std::free(setting.url);
  }
  OwnedSettings(const OwnedSettings&) = delete;
  OwnedSettings& operator=(const OwnedSettings&) = delete;

  ProxyUrlSettings& get() { return mSettings; }
  /// Passes the texts to the caller, who must free them.
  ProxyUrlSettings release() { return std::exchange(mSettings, {}); }

 private:
  ProxyUrlSettings mSettings;
};
