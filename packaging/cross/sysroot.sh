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
# Prints the folder on standard output; says on standard error what it does. Several at once: one
# makes it, the others wait for it. It is made anew where the list of packages is another; older
# ones may be removed at any time.
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
for tool in apt-get flock mmdebstrap sha256sum tar; do
  command -v "$tool" >/dev/null || fail "$tool is missing (packaging/dependencies.sh --cross)"
done

# What every package may take for granted, as control files do not name it.
packages="$("$here/../dependencies.sh" --list-libraries) libc6-dev libstdc++-12-dev"
include=$(echo "$packages" | tr -s ' \n' ',,' | sed 's/,$//')
release=$(. /etc/os-release && echo "${VERSION_CODENAME:-unstable}")

cache=${PROXYMANAGER_SYSROOT_CACHE:-${XDG_CACHE_HOME:-${HOME:?}/.cache}/proxymanagerd}
key=$(echo "$architecture $release $include" | cat - "$0" | sha256sum | cut -c1-12)
result="$cache/sysroot-$architecture-$key"
if [ -d "$result" ]; then
  echo "$result"
  exit 0
fi

mkdir -p "$cache"
exec 9>"$cache/.sysroot.lock"
flock --nonblock 9 || {
  say "another one is being made, waiting for it"
  flock 9
}
if [ -d "$result" ]; then
  echo "$result"
  exit 0
fi
staging=$(mktemp -d "$cache/.sysroot-XXXXXX")
trap 'rm -rf "$staging"' EXIT
trap 'exit 1' HUP INT TERM

# The machine's ways to its sources hold here, too.
source=$(apt-get indextargets --no-release-info \
  --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 'Component: main' |
  awk -v release="$release" '$3 == release { print; exit }')
[ -n "$source" ] || fail "apt on this machine knows no source of $release: apt-get update"
apt-config dump --no-empty --format '%f "%v";%n' Acquire | grep -i proxy >"$staging/proxies" || true

say "unpacking the packages for $architecture"
mkdir "$staging/root"
# As a tar file: what a user without rights unpacks is that user's own. Headers and libraries alone,
# as an emulated program would find every other file here before the machine's own.
mmdebstrap --quiet --architectures="$architecture" --variant=extract --include="$include" \
  --format=tar --aptopt="$staging/proxies" "$release" - "$source" 9>&- |
  tar -C "$staging/root" -x --no-same-owner ./lib ./usr/lib ./usr/include ./usr/share/cmake \
    ./usr/share/pkgconfig
[ -e "$staging/root/usr/include/stdio.h" ] || fail "mmdebstrap gave no headers"

# A link to /lib/... would lead the linker to the machine's own libraries.
find "$staging/root" -type l -lname '/*' | while read -r link; do
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" \
    "$staging/root$(readlink "$link")")" "$link"
done
chmod 755 "$staging/root"
mv -T "$staging/root" "$result"
say "ready in $result"
echo "$result"
