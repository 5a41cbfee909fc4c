#!/bin/sh
# Copies the hooks to the folders of their clients, below ROOT. The build of the package
# proxymanager-dhcp calls this script, and the build of an image can also call it.
#
# usage: put_in_place.sh HOOKS ROOT
#
# HOOKS is the installed folder share/proxymanager/hooks. udhcpc has no folder of hooks; see
# README.md.
set -eu
hooks=$1 root=$2

put() { install -D -m "$1" "$hooks/$2" "$root/$3"; }

put 644 dhclient etc/dhcp/dhclient-exit-hooks.d/proxymanager
put 755 networkmanager etc/NetworkManager/dispatcher.d/50-proxymanager
for state in routable degraded carrier no-carrier off; do
  put 755 networkd-dispatcher "etc/networkd-dispatcher/$state.d/proxymanager"
done
# dhcpcd's folder of hooks is below /usr, where administrators should not edit files. So this folder
# gets a link, and the file is in /etc.
put 644 dhcpcd etc/proxymanagerd/dhcpcd-hook
install -d "$root/usr/lib/dhcpcd/dhcpcd-hooks"
ln -sf /etc/proxymanagerd/dhcpcd-hook "$root/usr/lib/dhcpcd/dhcpcd-hooks/70-proxymanager"
