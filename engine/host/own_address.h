// The addresses of this device for the helpers of a script. No packet is ever sent.
#pragma once

#include <string>
#include <vector>

#include "engine/wire/address_family.h"

namespace pac_engine {

/// For kIpv4, the source address of the route to the outside. For kAny, all usable addresses, in
/// the kernel's order, 64 at most. An address is usable if its interface is up and it is neither a
/// loopback nor a link-local address.
/// Empty if there is none. Any thread; does not block.
std::vector<std::string> ownAddresses(pac_engine::AddressFamily family);

}  // namespace pac_engine
