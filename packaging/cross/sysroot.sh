#!/bin/sh
# Makes a folder with the headers and libraries that a build for another architecture needs. A later
# call uses the same folder.
#
# The machine gets no foreign architecture, and its packages do not change: mmdebstrap unpacks the
# packages that packaging/debian/control names, with their dependencies, from the apt source of the
# machine's own release. Programs from this folder run only in an emulator. The folder has the
# packages of the release without later updates: a program that is linked with the oldest libraries
# also runs with all newer libraries.
#
# usage: packaging/cross/sysroot.sh ARCHITECTURE
#
# Prints the folder on standard output, and its steps on standard error. If the script runs several
# times at once, one run makes the folder, and the other runs wait for it. If the list of packages
# changes, the script makes a new folder. You may remove older folders at any time.
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

# The last two packages are a part of build-essential, so packaging/debian/control does not name
# them.
packages="$("$here/../dependencies.sh" --list-libraries) libc6-dev libstdc++-12-dev"
include=$(echo "$packages" | tr -s ' \n' ',,' | sed 's/,$//')
release=$(. /etc/os-release && echo "${VERSION_CODENAME:-unstable}")

cache=${PROXYMANAGER_SYSROOT_CACHE:-${XDG_CACHE_HOME:-${HOME:?}/.cache}/proxymanagerd}
key=$(echo "$architecture $release $include" | cat - "$0" | sha256sum | cut -c1-12)
kept_folder "$cache" "sysroot-$architecture" "$key"

# The machine's apt settings (for example its proxy) also apply here.
source=$(apt-get indextargets --no-release-info \
  --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Component: main' |
  awk -v release="$release" '$3 == release { print; exit }')
[ -n "$source" ] || fail "apt on this machine knows no source of $release: apt-get update"
apt-config dump --no-empty --format '%f "%v";%n' Acquire | grep -i proxy >"$work/proxies" || true

say "unpacking the packages for $architecture"
# mmdebstrap makes a tar file, because an ordinary user cannot unpack files of other owners. Only
# headers and libraries are unpacked from the tar file: the emulator would use every other file of
# this folder instead of the machine's own file.
mmdebstrap --quiet --architectures="$architecture" --variant=extract --include="$include" \
  --format=tar --aptopt="$work/proxies" "$release" - "$source" 9>&- |
  tar -C "$staging" -x --no-same-owner ./lib ./usr/lib ./usr/include ./usr/share/cmake \
    ./usr/share/pkgconfig
[ -e "$staging/usr/include/stdio.h" ] || fail "mmdebstrap gave no headers"

# Makes absolute links relative: with an absolute link to /lib/..., the linker would use the
# machine's own libraries.
find "$staging" -type l -lname '/*' | while read -r link; do
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" \
    "$staging$(readlink "$link")")" "$link"
done
keep
