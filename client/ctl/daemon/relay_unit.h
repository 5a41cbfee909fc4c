// The socket unit of proxymanager-relay, and its state as systemd reports it.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <string>

namespace client {

/// The address at which the packaged socket unit listens, and which the packaged snippets contain.
inline constexpr const char* kRelayEndpoint = "127.0.0.1:3128";
inline constexpr const char* kRelaySocketUnit = "proxymanager-relay.socket";

struct RelayUnit {
  bool isInstalled = false;
  bool isEnabled = false;  ///< started at boot
  bool isActive = false;   ///< listens now
  bool listens = false;    ///< kRelayEndpoint is among its addresses
};

/// Asks systemd over `bus`, and starts nothing. Throws Failure: kUnavailable if systemd does not
/// answer within `limit`.
RelayUnit readRelayUnit(sd_bus* bus, std::chrono::microseconds limit);

}  // namespace client
