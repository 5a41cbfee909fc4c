// The address of the system message bus.
#pragma once

#include <string>

namespace client {

/// The value of DBUS_SYSTEM_BUS_ADDRESS if it is set, unless the program has more rights than its
/// caller. Else the system's usual address.
std::string systemBusAddress();

}  // namespace client
