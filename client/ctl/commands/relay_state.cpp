#include "client/ctl/commands/relay_state.h"

#include <nlohmann/json.hpp>

#include "client/ctl/commands/relay_snippets.h"
#include "client/ctl/failure.h"

namespace client {

namespace {

constexpr const char* kDefault = "the default of programs";
constexpr const char* kDisable = "; run \"proxymanagerctl relay disable\"";

Row row(std::string value, Tone tone) {
  return {"relay", std::move(value), tone};
}

/// A warning that the snippets send programs to a port that any user may bind. `why` is the reason.
Row danger(const std::string& why) {
  return row(std::string(kDefault) + ", but " + why + kDisable, Tone::kBad);
}

}  // namespace

bool isRelayDefault() {
  return !relayLinks().empty();
}

RelayState lookAtRelay(sd_bus* bus, std::chrono::microseconds limit) {
  RelayState state;
  state.isDefault = isRelayDefault();
  try {
    state.unit = readRelayUnit(bus, limit);
  } catch (const Failure& failure) {
    state.unknown = failure.what();
  }
  return state;
}

Row relayRow(const RelayState& state) {
  const auto& unit = state.unit;
  if (!unit) {
    if (state.isDefault) return row(std::string(kDefault) + "; " + state.unknown, Tone::kPlain);
    return row("not the default of programs", Tone::kFaint);
  }
  if (!unit->isInstalled) {
    return state.isDefault ? danger("it is not installed") : row("not installed", Tone::kFaint);
  }
  if (!unit->isActive) {
    return state.isDefault ? danger("its socket unit is not active")
                           : row("installed, its socket unit is not active", Tone::kFaint);
  }
  if (!unit->listens) {
    const auto elsewhere = std::string("its socket unit does not listen at ") + kRelayEndpoint;
    return state.isDefault ? danger(elsewhere) : row("active; " + elsewhere, Tone::kPlain);
  }
  const auto at = std::string("at ") + kRelayEndpoint + ", ";
  return state.isDefault ? row(at + kDefault, Tone::kGood)
                         : row(at + "not " + kDefault, Tone::kPlain);
}

nlohmann::ordered_json relayJson(const RelayState& state) {
  using Json = nlohmann::ordered_json;
  const auto& unit = state.unit;
  return {{"default", state.isDefault},
          {"installed", unit ? Json(unit->isInstalled) : Json()},
          {"enabled", unit && unit->isInstalled ? Json(unit->isEnabled) : Json()},
          {"active", unit && unit->isInstalled ? Json(unit->isActive) : Json()}};
}

}  // namespace client
