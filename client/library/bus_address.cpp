#include "client/library/bus_address.h"

#include <cstdlib>
#include <string_view>

namespace client {

namespace {

constexpr std::string_view kDefaultAddress = "unix:path=/run/dbus/system_bus_socket";

}  // namespace

std::string systemBusAddress() {
  const char* const given = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
  return std::string(given != nullptr && *given != '\0' ? std::string_view(given)
                                                        : kDefaultAddress);
}

}  // namespace client
