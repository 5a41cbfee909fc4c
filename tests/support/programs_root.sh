#!/bin/sh
# Makes a Debian 12 in a folder, with programs that a test runs there, and prints the folder. The
# folder is kept for the next run. usage: programs_root.sh NAME PACKAGE...
#
# The script is for proxies and package managers that must not be installed on the machine, because
# some would start services. apt fetches them from the machine's own sources and verifies them. If
# the script runs several times at once, one run makes the folder, and the others wait for it.
#
# Environment: PROXYMANAGER_UNPACKED, the folder in which all these folders are kept
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

# The apt sources of this machine for the suite.
# shellcheck disable=SC2016  # the fields are apt's
apt-get indextargets --no-release-info --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' \
  'Created-By: Packages' 'Component: main' |
  awk -v suite="$suite" '$2 == suite || $2 == suite "-updates" || $2 == suite "-security" {
    print "deb " $0 }' | sort -u >"$work/sources"
[ -s "$work/sources" ] || fail "apt on this machine knows no source of $suite: apt-get update"
# The settings with which this machine's apt reaches these sources.
apt-config dump --no-empty --format '%f "%v";%n' Acquire | grep roxy >"$work/options" || :

set -- $(printf '%s ' "$@" | sed 's/ $//; s/ /,/g')
option=
while read -r line; do option="$option --aptopt='$line'"; done <"$work/options"
# This runs in a separate mount namespace, so after a failure nothing stays mounted below the folder.
eval unshare --mount mmdebstrap --quiet --format=directory --variant=apt --include="$1" "$option" \
  "--aptopt='Acquire::Retries \"3\"'" "$suite" '"$staging/root"' '"$work/sources"' >"$work/log" 2>&1 ||
  fail "it cannot be made: $(tail -n 5 "$work/log")"
rm -rf "$staging/root/var/cache/apt/archives" "$staging/root/usr/share/doc"
keep
