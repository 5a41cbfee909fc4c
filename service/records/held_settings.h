// A list of entries that nobody owns yet.
#pragma once

#include <cstdlib>
#include <utility>

#include "service/records/proxy_config.h"

/// Frees the texts of a list, without a line, unless they are released first.
class HeldSettings {
 public:
  HeldSettings() = default;
  explicit HeldSettings(ProxyUrlSettings settings) : mSettings(std::move(settings)) {}
  ~HeldSettings() {
    for (const auto& setting : mSettings) std::free(setting.url);
  }
  HeldSettings(const HeldSettings&) = delete;
  HeldSettings& operator=(const HeldSettings&) = delete;

  ProxyUrlSettings& get() { return mSettings; }
  /// Hands the texts to the caller.
  ProxyUrlSettings release() { return std::exchange(mSettings, {}); }

 private:
  ProxyUrlSettings mSettings;
};
