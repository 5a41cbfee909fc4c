// The current DHCP lease, from the device's network service.
//
// On an ordinary Linux the DHCP client's hook writes the lease into a small text file. Each call
// reads this file; nothing is kept between calls. If a device has its own network service, it
// replaces only this function, with -DPROXYMANAGER_DEVICE (docs/integration.md). The layout of the
// record stays the same.
#pragma once

#include <cstddef>
#include <type_traits>

/// The lease in the layout of the network service. The reserved part belongs to the network
/// service; this code only clears it.
struct DhcpInfo {
  char reserved[1260];
  char option252[252];  ///< URL of the PAC script, then a NUL; empty if the lease has none
};
static_assert(sizeof(DhcpInfo) == 1512);
static_assert(offsetof(DhcpInfo, option252) == 1260);
static_assert(std::is_trivially_copyable_v<DhcpInfo>);

/// Fills `info` with the current lease, from /usr/local/lumad/dhcp.conf.
/// @param info the caller's record, not null; zeroed, then filled
/// @return 0 if the lease was read, or if the file does not exist (the record is then empty). Else
///         an errno value, with one LOG_ERR line and an empty record: the file is not a regular
///         file, is longer than 64 KiB or cannot be read
///
/// Any thread. Never blocks, no matter which kind of file is at the path.
int getdhcpinfo(DhcpInfo* info);
