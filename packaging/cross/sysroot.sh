#!/bin/sh
# Makes a folder with the headers and libraries that a build for another architecture needs, once
# per machine.
#
# No foreign architecture is added to the machine, and none of its packages changes: mmdebstrap
# unpacks what packaging/debian/control names, with what that depends on, from the machine's own apt
# source of its release. Only an emulator runs programs of it. It contains the release itself,
# without later updates: a program that is linked with the oldest libraries also runs with all newer
# ones.
#
# usage: packaging/cross/sysroot.sh ARCHITECTURE
#
# Prints the folder on standard output; reports its steps on standard error. If several of these
# scripts run at the same time, one makes the folder, and the others wait for it. It is made again
# if the list of packages has changed; older ones may be removed at any time.
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

# The packages that every other package may use without a dependency in its control file.
packages="$("$here/../dependencies.sh" --list-libraries) libc6-dev libstdc++-12-dev"
include=$(echo "$packages" | tr -s ' \n' ',,' | sed 's/,$//')
release=$(. /etc/os-release && echo "${VERSION_CODENAME:-unstable}")

cache=${PROXYMANAGER_SYSROOT_CACHE:-${XDG_CACHE_HOME:-${HOME:?}/.cache}/proxymanagerd}
key=$(echo "$architecture $release $include" | cat - "$0" | sha256sum | cut -c1-12)
kept_folder "$cache" "sysroot-$architecture" "$key"

# The machine's settings for its package sources also apply here.
source=$(apt-get indextargets --no-release-info \
  --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Component: main' |
  awk -v release="$release" '$3 == release { print; exit }')
[ -n "$source" ] || fail "apt on this machine knows no source of $release: apt-get update"
apt-config dump --no-empty --format '%f "%v";%n' Acquire | grep -i proxy >"$work/proxies" || true

say "unpacking the packages for $architecture"
# As a tar file, because files that an ordinary user unpacks belong to this user. Only headers and
# libraries: an emulated program would find every other file here before the machine's own file.
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
