#!/usr/bin/env bash
# Runs the program of the other project: first as it was built, then installed to a separate prefix
# together with the programs that the library starts.
# usage: run.sh BUILD   (the folder in which the program was built)
set -euo pipefail
build=$1
unset http_proxy all_proxy ALL_PROXY

# downloads_by PROGRAM FETCH: runs PROGRAM, and checks that it downloads with the fetch process
# FETCH.
downloads_by() {
  local said
  said=$("$1")
  [ "$said" = "linked
downloaded by $2" ] || {
    echo "$1: $said, not by $2" >&2
    exit 1
  }
}

fetch=$(find "$build" -name proxymanager-fetch -type f)
downloads_by "$build/embed" "$fetch"

prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
chmod 755 "$prefix"
install -D -t "$prefix/bin" "$build/embed"
install -D -t "$prefix/libexec" "$fetch"
downloads_by "$prefix/bin/embed" "$prefix/libexec/proxymanager-fetch"
