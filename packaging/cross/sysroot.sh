#!/bin/sh
# Makes the folder with another architecture's headers and libraries that this tree is linked with,
# once per machine.
#
# No foreign architecture is added to the machine, and none of its packages changes: mmdebstrap
# unpacks what packaging/debian/control names, with what that depends on, from the machine's own apt
# source of its release. Nothing of it is run but by an emulator. The release itself is taken,
# without later updates: what is linked with the oldest libraries runs with all newer ones.
#
# usage: packaging/cross/sysroot.sh ARCHITECTURE
#
# Prints the folder on standard output; reports its steps on standard error. If several run at once, one
# makes it, the others wait for it. It is made again if the list of packages has changed; older ones may be
# removed at any time.
#
# Environment: PROXYMANAGER_SYSROOT_CACHE, the folder that keeps the result
# (${XDG_CACHE_HOME:-~/.cache}/proxymanagerd).
set -eu

architecture=${1:?usage: sysroot.sh ARCHITECTURE}
here=$(cd "$(dirname "$0")" && pwd)

say() { echo "sysroot: $*" >&2; }
fail() {
  say "$*"
  exit 1
}
. "$here/../kept_folder.sh"
for tool in apt-get flock mmdebstrap sha256sum tar; do
  command -v "$tool" >/dev/null || fail "$tool is missing (packaging/dependencies.sh --cross)"
done

# The packages on which every other one may rely without naming them in its control file.
packages="$("$here/../dependencies.sh" --list-libraries) libc6-dev libstdc++-12-dev"
include=$(echo "$packages" | tr -s ' \n' ',,' | sed 's/,$//')
release=$(. /etc/os-release && echo "${VERSION_CODENAME:-unstable}")

cache=${PROXYMANAGER_SYSROOT_CACHE:-${XDG_CACHE_HOME:-${HOME:?}/.cache}/proxymanagerd}
key=$(echo "$architecture $release $include" | cat - "$0" | sha256sum | cut -c1-12)
kept_folder "$cache" "sysroot-$architecture" "$key"

# The machine's ways to its sources hold here, too.
source=$(apt-get indextargets --no-release-info \
  --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Component: main' |
  awk -v release="$release" '$3 == release { print; exit }')
[ -n "$source" ] || fail "apt on this machine knows no source of $release: apt-get update"
apt-config dump --no-empty --format '%f "%v";%n' Acquire | grep -i proxy >"$work/proxies" || true

say "unpacking the packages for $architecture"
# As a tar file: what a user without rights unpacks is that user's own. Headers and libraries alone,
# as an emulated program would find every other file here before the machine's own.
mmdebstrap --quiet --architectures="$architecture" --variant=extract --include="$include" \
  --format=tar --aptopt="$work/proxies" "$release" - "$source" 9>&- |
  tar -C "$staging" -x --no-same-owner ./lib ./usr/lib ./usr/include ./usr/share/cmake \
    ./usr/share/pkgconfig
[ -e "$staging/usr/include/stdio.h" ] || fail "mmdebstrap gave no headers"

# A link to /lib/... would lead the linker to the machine's own libraries.
find "$staging" -type l -lname '/*' | while read -r link; do
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" \
    "$staging$(readlink "$link")")" "$link"
done
keep
