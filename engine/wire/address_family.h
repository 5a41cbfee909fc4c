// The address families that a name lookup can return.
#pragma once

#include <cstdint>

namespace pac_engine {

enum class AddressFamily : std::uint8_t { kIpv4, kAny };

}  // namespace pac_engine
