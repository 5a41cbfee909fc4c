// The files that several programs of this tree use.
#pragma once

namespace base {

/// The script in force. The daemon writes it; everybody may read it.
inline constexpr char kPacFile[] = "/tmp/proxymanager.pac";
/// The script during its download.
inline constexpr char kPacDownload[] = "/tmp/proxymanager.pac.tmp";
/// The lease of the DHCP client, lines of key=value.
inline constexpr char kLeaseFile[] = "/usr/local/lumad/dhcp.conf";
/// The search list of the network: one line, as in resolv.conf(5).
inline constexpr char kResolverFile[] = "/tmp/.resolv.conf.dnsmasq";
/// The rules of the device's time zone.
inline constexpr char kZoneFile[] = "/etc/localtime";

}  // namespace base
