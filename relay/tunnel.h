// Copies bytes between two connections in both directions, until both directions have ended.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "relay/slot.h"
#include "relay/stream.h"

namespace relay {

/// Starts a tunnel. The tunnel deletes itself at its end. While there is no traffic, it needs no
/// buffer.
/// @param forServer bytes from the client that were already read
/// @param forClient bytes from the server that were already read
/// @param idle longest time without a byte in either direction
/// @param slot released at the end of the tunnel
void startTunnel(Sweeper& sweeper, Stream client, Stream server, std::string forServer,
                 std::string forClient, std::chrono::seconds idle, Slot slot);

}  // namespace relay
