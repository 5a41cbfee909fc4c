// Bytes copied between two connections, in both directions, until both have ended.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "relay/slot.h"
#include "relay/stream.h"

namespace relay {

/// Starts a tunnel, which then owns itself. Without traffic it holds no buffer.
/// @param forServer bytes of the client that were read already
/// @param forClient bytes of the server that were read already
/// @param idle how long it may be without a byte in either direction
/// @param slot is held as long as the tunnel is there
void startTunnel(Sweeper& sweeper, Stream client, Stream server, std::string forServer,
                 std::string forClient, std::chrono::seconds idle, Slot slot);

}  // namespace relay
