#!/usr/bin/env bash
# Tests that fetch_quickjs.sh unpacks source tarballs of two compressions, and that it leaves the
# verification to apt: when it copies an entry of the machine's apt sources, it leaves out the options
# that turn the verification off.
#
# usage: engine_source.sh FETCH_QUICKJS_SH
#
# A stand-in for apt-get records the source entry that it gets, and gives a tarball.
set -euo pipefail
script=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$*" >&2
  exit 1
}

mkdir -p "$work/bin" "$work/quickjs-0.99.0"
echo 'int engine;' >"$work/quickjs-0.99.0/quickjs.c"
cat >"$work/bin/apt-get" <<'EOF'
#!/bin/sh
case "$*" in
  indextargets*) echo "$ENTRY $(. /etc/os-release && echo "${VERSION_CODENAME:-unstable}")" ;;
  *update) for word; do case $word in Dir::Etc::SourceList=*) cp "${word#*=}" "$SEEN" ;; esac; done ;;
  *source*)
    tar -caf "quickjs-ng_0.99.0.orig.tar.$COMPRESSION" -C "$TARBALL_OF" quickjs-0.99.0
    : >"quickjs-ng_0.99.0.orig.tar.$COMPRESSION.asc"
    ;;
esac
EOF
chmod +x "$work/bin/apt-get"

# fetched COMPRESSION ENTRY: runs the script; the source entry that apt got is in $work/seen.
fetched() {
  rm -rf "$work/cache"
  folder=$(PATH=$work/bin:$PATH PROXYMANAGER_ENGINE_CACHE=$work/cache ENTRY=$2 SEEN=$work/seen \
    COMPRESSION=$1 TARBALL_OF=$work "$script" 2>"$work/steps") || fail "$1: $(cat "$work/steps")"
  grep -q "version 0.99.0, " "$work/steps" || fail "$1: which version? $(cat "$work/steps")"
  [ -e "$folder/quickjs.c" ] || fail "$1: nothing was unpacked"
}

# is_entry: compares standard input with the source entry that apt got.
is_entry() {
  diff <(cat) "$work/seen" || fail "apt did not get this entry"
}

echo "entries of a line"
cat >"$work/own.list" <<'EOF'
# The apt sources of the machine
deb [trusted=yes] http://host/debian bookworm main
deb [arch=amd64 Trusted=yes allow-insecure=yes signed-by=/k.gpg] http://host/?trusted=yes bookworm main
deb [ allow-weak=yes allow-downgrade-to-insecure=yes ] http://host/debian bookworm main
deb http://host/debian bookworm main
EOF
fetched gz "$work/own.list:2"
is_entry <<<"deb-src http://host/debian trixie-backports main"
fetched gz "$work/own.list:3"
is_entry <<<"deb-src [arch=amd64 signed-by=/k.gpg] http://host/?trusted=yes trixie-backports main"
fetched gz "$work/own.list:4"
is_entry <<<"deb-src http://host/debian trixie-backports main"
fetched gz "$work/own.list:5"
is_entry <<<"deb-src http://host/debian trixie-backports main"

echo "entries of a paragraph, and another compression"
cat >"$work/own.sources" <<'EOF'
Types: deb
URIs: http://host/debian
Suites: bookworm
Components: main
trusted: yes
Allow-Insecure: yes
Allow-Weak: yes
Allow-Downgrade-To-Insecure: yes
Signed-By: /k.gpg
EOF
fetched xz "$work/own.sources:1"
is_entry <<'EOF'
URIs: http://host/debian
Signed-By: /k.gpg
Types: deb-src
Suites: trixie-backports
Components: main
EOF
