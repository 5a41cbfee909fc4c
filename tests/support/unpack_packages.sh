#!/bin/sh
# Unpacks Debian packages, without their dependencies, into a folder, and prints the folder. The
# folder is kept for the next run.
# usage: unpack_packages.sh NAME PACKAGE...
#
# The script is for programs that only a test needs. If these programs were installed, many packages
# of a desktop would be installed, too. The services and proxy resolvers of those packages would
# disturb the tests. apt fetches the packages from the machine's own sources and verifies them. If
# the script runs several times at once, one run unpacks, and the others wait for it.
#
# Environment: PROXYMANAGER_UNPACKED, the folder in which all these folders are kept
# (${XDG_CACHE_HOME:-~/.cache}/proxymanagerd).
set -eu
name=$1
shift

say() { echo "$name: $*" >&2; }
fail() {
  say "$*"
  exit 1
}
. "$(dirname "$0")/../../packaging/kept_folder.sh"

cache=${PROXYMANAGER_UNPACKED:-${XDG_CACHE_HOME:-${HOME:?}/.cache}/proxymanagerd}
key=$({ cat /etc/os-release && dpkg --print-architecture && echo "$@"; } | sha256sum | cut -c1-12)
kept_folder "$cache" "$name" "$key"
folder_for_apt "$work/packages"

download() {
  (cd "$work/packages" && apt-get -q -o Acquire::Retries=3 download "$@") >"$work/log" 2>&1
}
# Old package lists name packages that do not exist any more.
download "$@" || { apt-get -q update >>"$work/log" 2>&1 && download "$@"; } ||
  fail "apt does not give $*: $(cat "$work/log")"
for package in "$work"/packages/*.deb; do
  dpkg-deb --extract "$package" "$staging" || fail "$package cannot be unpacked"
done
keep
