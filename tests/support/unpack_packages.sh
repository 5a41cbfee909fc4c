#!/bin/sh
# Unpacks Debian packages, without what they depend on, into a folder that is kept, and prints it.
# usage: unpack_packages.sh NAME PACKAGE...
#
# For programs that a test looks at and no machine needs: installed, they would bring a desktop's
# worth of packages with services of their own, and proxy resolvers that the tests are not to meet.
# They are taken and verified by apt from the machine's own sources. Runs several at once: one
# unpacks, the others wait for it.
#
# Environment: PROXYMANAGER_UNPACKED, the folder that keeps them
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
# Lists that are old name packages that have gone.
download "$@" || { apt-get -q update >>"$work/log" 2>&1 && download "$@"; } ||
  fail "apt does not give $*: $(cat "$work/log")"
for package in "$work"/packages/*.deb; do
  dpkg-deb --extract "$package" "$staging" || fail "$package cannot be unpacked"
done
keep
