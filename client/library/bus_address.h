// The address of the system message bus.
#pragma once

#include <string>

namespace client {

/// DBUS_SYSTEM_BUS_ADDRESS if it is set and the program has no more rights than its caller, else
/// the system's usual address.
std::string systemBusAddress();

}  // namespace client
