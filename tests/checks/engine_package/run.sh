#!/usr/bin/env bash
# Tests that the build uses the distribution's package of the engine if the package is recent
# enough, and the engine's source otherwise.
#
# usage: run.sh CMAKE OBJDUMP FOLDER HEADER LIBRARY: the engine of this build stands in for a package,
# under the names that Debian's libqjs-dev has.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
tree=$here/../../..
cmake=$1 objdump=$2 folder=$3 header=$4 library=$5
source=$(dirname "$header")

fail() {
  echo "$*" >&2
  exit 1
}

# The rule that chooses the engine runs in a separate tree. This tree contains the engine's source,
# like a release tarball.
rm -rf "$folder"
mkdir -p "$folder"/{cmake,packaging/quickjs,package/{pkgconfig,include/qjs}}
cp "$tree/cmake/quickjs.cmake" "$folder/cmake"
ln -s "$source" "$folder/packaging/quickjs/source"
cp "$header" "$folder/package/include/qjs"
cp "$library" "$folder/package/libqjs.a"

# chosen VERSION [OPTION...]: prints the output of the rule if a package of this version is installed.
chosen() {
  cat >"$folder/package/pkgconfig/qjs.pc" <<EOF
Name: quickjs-ng
Description: QuickJS-NG JavaScript engine
Version: $1
Libs: -L$folder/package -lqjs -lm
Cflags: -I$folder/package/include/qjs
EOF
  cp "$folder/package/pkgconfig/qjs.pc" "$folder/package/pkgconfig/quickjs-ng.pc"
  PKG_CONFIG_LIBDIR=$folder/package/pkgconfig "$cmake" -S "$here" -B "$folder/build-$1" -G Ninja \
    "-DRULE=$folder/cmake/quickjs.cmake" "${@:2}"
}

echo "a package that is recent enough"
output=$(chosen 0.17.0 -DLINK=ON)
grep -q "Script engine: QuickJS-NG 0.17.0, installed package" <<<"$output" || fail "not taken: $output"
grep -q "Header: $folder/package/include/qjs/quickjs.h" <<<"$output" || fail "whose header? $output"
"$cmake" --build "$folder/build-0.17.0" >"$folder/build.log" || fail "$(cat "$folder/build.log")"
"$folder/build-0.17.0/answer" || fail "the program does not work with the package's engine"

echo "the bill of materials of a worker with the package's shared library"
echo 'int qjs;' | cc -x c -shared -Wl,-soname,libqjs.so.0 -o "$folder/libqjs.so.0" -
echo 'int main(void) { return 0; }' |
  cc -x c -o "$folder/proxymanager-pac-worker" - -x none -Wl,--no-as-needed "$folder/libqjs.so.0"
"$cmake" "-DPROGRAMS=$folder/proxymanager-pac-worker" -DVERSION=1 -DENGINE_VERSION=0.17.0 \
  "-DENGINE_HEADER=$folder/package/include/qjs/quickjs.h" "-DOBJDUMP=$objdump" \
  "-DHOLES=$tree/docs/security/engine_holes.json" "-DCOPYRIGHT=$tree/packaging/debian/copyright" \
  "-DOUTPUT=$folder" -DTODAY=2026-10-01 -P "$tree/cmake/security_documents.cmake"
/usr/bin/python3 - "$folder/sbom.cdx.json" <<'EOF'
import json, sys
sbom = json.load(open(sys.argv[1], encoding="utf-8"))
versions = {part["name"]: part.get("version") for part in sbom["components"]}
assert versions["quickjs-ng"] == "0.17.0", versions
used = next(entry["dependsOn"] for entry in sbom["dependencies"] if "worker" in entry["ref"])
assert {"quickjs-ng", "libqjs.so.0"} <= set(used), used
EOF

for version in 0.15.0 0.16.1; do
  echo "package $version, which has published holes"
  output=$(chosen "$version")
  grep -q "installed package" <<<"$output" && fail "it was taken: $output"
  grep -q "built from $folder/.*packaging/quickjs/source$" <<<"$output" || fail "no source: $output"
done
