// The state of proxymanager-relay that "proxymanagerctl status" shows.
#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "client/ctl/daemon/relay_unit.h"
#include "client/ctl/terminal/output.h"

namespace client {

struct RelayState {
  bool isDefault = false;  ///< a snippet is in place
  std::optional<RelayUnit> unit;
  std::string unknown;  ///< why there is no `unit`
};

/// Whether a snippet is in place.
bool isRelayDefault();

/// Looks at the snippets, and asks systemd over `bus`. `limit` is the time limit of each answer.
RelayState lookAtRelay(sd_bus* bus, std::chrono::microseconds limit);

/// The row for the table of "proxymanagerctl status".
Row relayRow(const RelayState& state);

/// The state as a JSON object with default, installed, enabled and active.
nlohmann::ordered_json relayJson(const RelayState& state);

}  // namespace client
