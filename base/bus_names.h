// The names under which the daemon is found on the bus.
#pragma once

namespace base {

inline constexpr char kBusName[] = "com.zentu.ProxyManagerService";
inline constexpr char kObjectPath[] = "/com/zentu/ProxyManagerService";
inline constexpr char kInterface[] = "com.zentu.ProxyManagerServiceInterface";

}  // namespace base
