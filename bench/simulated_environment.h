// A simulated device without names, addresses and clock, so that the measurements do not depend on
// the machine's network or clock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/worker/script_engine.h"

namespace bench {

class SimulatedEnvironment : public pac_worker::PacEnvironment {
 public:
  std::vector<std::string> resolve(std::string_view, pac_engine::AddressFamily) override {
    return {};
  }
  std::vector<std::string> ownAddresses(pac_engine::AddressFamily) override { return {}; }
  std::optional<std::int64_t> stoppedClock() override { return std::nullopt; }
  void alert(std::string_view) override {}
};

}  // namespace bench
