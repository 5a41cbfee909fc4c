// Where the system message bus is.
#pragma once

#include <string>

namespace client {

/// DBUS_SYSTEM_BUS_ADDRESS where it is set and the program has no more rights than its caller, else
/// where the system has its bus.
std::string systemBusAddress();

}  // namespace client
