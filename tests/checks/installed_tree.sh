#!/usr/bin/env bash
# Installs the build to a temporary prefix and tests the installed files.
# usage: installed_tree.sh CMAKE BUILD FILE...   (FILE: a file that must exist below the prefix)
set -euo pipefail
cmake=$1 build=$2
shift 2

prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
fail() {
  echo "$*" >&2
  exit 1
}

"$cmake" --install "$build" --prefix "$prefix/first" >/dev/null
# The programs must also work in a folder that is not the one that they were installed to.
mv "$prefix/first" "$prefix/second"

for file in "$@"; do
  installed=$prefix/second/$file
  [ -f "$installed" ] || fail "$file is not installed"
  case $file in *bin/* | *libexec/* | *.so) ;; *) continue ;; esac
  case $file in *.so) ;; *) [ -x "$installed" ] || fail "$file is not executable" ;; esac
  if ldd "$installed" | grep 'not found'; then fail "$file lacks libraries"; fi
  # A run path that is relative to the program ($ORIGIN/..) is allowed.
  if readelf -d "$installed" | grep -E 'R(UN)?PATH' | grep -vF '[$ORIGIN/..'; then
    fail "$file remembers a folder"
  fi
  # Debug information may contain paths of the build folder, but the rest of a program must not. The
  # address sanitizer keeps the names of the sources that CMake has joined.
  if strings -d "$installed" | grep -F "$build/" | grep -v '/Unity/unity_[0-9]*_cxx\.cxx$'; then
    fail "$file remembers its build folder"
  fi
done

# Without a bus the daemon starts, logs the problem and ends with status 1. It has its own /run, so
# it finds no other instance.
daemon=$(find "$prefix/second" -name proxymanagerd -type f)
[ -n "$daemon" ] || exit 0
status=0
namespaces=(--mount)
[ "$(id -u)" -eq 0 ] || namespaces+=(--map-root-user)
# shellcheck disable=SC2016  # expanded by the inner shell
DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere/bus timeout 60 \
  unshare "${namespaces[@]}" sh -c 'mount -t tmpfs tmpfs /run && exec "$0"' "$daemon" || status=$?
[ "$status" -eq 1 ] || fail "the installed daemon ended with status $status without a bus, not with 1"
