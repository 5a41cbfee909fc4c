#!/bin/sh
# Makes a Debian 12 in a folder that is kept, with programs that a test runs in it, and prints the
# folder. usage: programs_root.sh NAME PACKAGE...
#
# For proxies and package managers that are never installed on the machine: some would start services
# on it. They are taken and verified by apt from the machine's own sources. Several may run at once:
# one makes the folder, the others wait for it.
#
# Environment: PROXYMANAGER_UNPACKED, the folder that keeps them
# (${XDG_CACHE_HOME:-~/.cache}/proxymanagerd).
set -eu
name=$1
shift
suite=bookworm

say() { echo "$name: $*" >&2; }
fail() {
  say "$*"
  exit 1
}
. "$(dirname "$0")/../../packaging/kept_folder.sh"

cache=${PROXYMANAGER_UNPACKED:-${XDG_CACHE_HOME:-${HOME:?}/.cache}/proxymanagerd}
key=$({ dpkg --print-architecture && echo "$suite" "$@"; } | sha256sum | cut -c1-12)
kept_folder "$cache" "$name" "$key"

# This machine's own sources of the suite.
# shellcheck disable=SC2016  # the fields are apt's
apt-get indextargets --no-release-info --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' \
  'Created-By: Packages' 'Component: main' |
  awk -v suite="$suite" '$2 == suite || $2 == suite "-updates" || $2 == suite "-security" {
    print "deb " $0 }' | sort -u >"$work/sources"
[ -s "$work/sources" ] || fail "apt on this machine knows no source of $suite: apt-get update"
# The ways to them that this machine's apt is told.
apt-config dump --no-empty --format '%f "%v";%n' Acquire | grep roxy >"$work/options" || :

set -- $(printf '%s ' "$@" | sed 's/ $//; s/ /,/g')
option=
while read -r line; do option="$option --aptopt='$line'"; done <"$work/options"
# In a mount namespace of its own: what is left of a failure has nothing mounted below it.
eval unshare --mount mmdebstrap --quiet --format=directory --variant=apt --include="$1" "$option" \
  "--aptopt='Acquire::Retries \"3\"'" "$suite" '"$staging/root"' '"$work/sources"' >"$work/log" 2>&1 ||
  fail "it cannot be made: $(tail -n 5 "$work/log")"
rm -rf "$staging/root/var/cache/apt/archives" "$staging/root/usr/share/doc"
keep
