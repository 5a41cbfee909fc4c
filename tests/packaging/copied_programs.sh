#!/usr/bin/env bash
# Copies the programs and libraries of a build folder to another place, and starts the programs that
# people start first.
# usage: copied_programs.sh OUT
set -euo pipefail
out=$1
copy=$(mktemp -d)
trap 'rm -rf "$copy"' EXIT
cp -a "$out/bin" "$out/sbin" "$out/lib" "$out/libexec" "$copy"

while IFS= read -r -d '' file; do
  # An empty entry of a run path means the current folder.
  others=$(readelf -d "$file" 2>/dev/null | sed -nE 's/.*R(UN)?PATH.*\[(.*)\].*/\2/p' | tr ':' '\n' |
    sed 's/^$/the current folder/' | grep -vE '^\$ORIGIN(/|$)' || true)
  [ -z "$others" ] || {
    echo "${file#"$copy/"} looks for libraries in $others" >&2
    exit 1
  }
done < <(find "$copy" -type f -print0)

# proxymanagerctl contains the client library; the GLib module loads it as a shared library.
module=$copy/lib/gio/modules/libgioproxymanager.so
if [ -e "$module" ]; then
  ldd "$module" | grep -F "=> $copy/" >/dev/null || {
    echo "the module of GLib programs does not find the library beside it" >&2
    exit 1
  }
fi
echo 'function FindProxyForURL(url, host) { return "PROXY p:1"; }' |
  "$copy/bin/proxymanagerctl" pac eval - http://a/ | grep -F 'PROXY p:1'
