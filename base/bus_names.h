// The bus names of the daemon and of its settings service.
#pragma once

namespace base {

inline constexpr char kBusName[] = "com.zentu.ProxyManagerService";
inline constexpr char kObjectPath[] = "/com/zentu/ProxyManagerService";
inline constexpr char kInterface[] = "com.zentu.ProxyManagerServiceInterface";

/// The bus name and the object path of proxymanager-settings. proxymanagerctl asks this service for
/// its state.
inline constexpr char kSettingsBusName[] = "com.zentu.ProxyManagerSettings";
inline constexpr char kSettingsObjectPath[] = "/com/zentu/ProxyManagerSettings";
inline constexpr char kSettingsInterface[] = "com.zentu.ProxyManagerSettings";

}  // namespace base
