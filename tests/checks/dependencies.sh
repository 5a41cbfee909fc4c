#!/bin/sh
# Tests how packaging/dependencies.sh reads the control file. usage: dependencies.sh TREE
set -eu
tree=$1
tool=$tree/packaging/dependencies.sh
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

expect() {
  if [ "$2" != "$3" ]; then
    printf '%s: expected\n%s\ngot\n%s\n' "$1" "$2" "$3" >&2
    exit 1
  fi
}

# A copy of the script reads a control file of the test.
mkdir "$folder/debian"
cp "$tool" "$folder"
cat >"$folder/debian/control" <<EOF
Source: example
Build-Depends: debhelper-compat (= 13), dpkg (>= 1.0),
# a comment, with a comma
 dpkg (>= 999) | coreutils,
 no-such-package-here | no-such-either <!nocheck>,
 libexample-dev (>= 2) <!nocheck>, libclang-rt-dev <!nocheck>, g++-other <pkg.proxymanagerd.cross>,
 browser <pkg.proxymanagerd.browsers>, differ <pkg.proxymanagerd.reproducible>
Standards-Version: 4.6.2

Package: example
Depends: not-this-one
EOF
example=$folder/dependencies.sh

expect "all" "dpkg (>= 1.0)
dpkg (>= 999) | coreutils
no-such-package-here | no-such-either
libexample-dev (>= 2)
libclang-rt-dev" "$("$example" --list)"
expect "without tests" "dpkg (>= 1.0)
dpkg (>= 999) | coreutils" "$("$example" --list --no-tests)"
expect "with the package's own" "debhelper-compat (= 13)" "$("$example" --list --package | head -n 1)"
expect "for another architecture" "g++-other" "$("$example" --list --cross | tail -n 1)"
expect "for the comparison with browsers" "browser" "$("$example" --list --browsers | tail -n 1)"
expect "for the packages that are built twice" "differ" "$("$example" --list --reproducible | tail -n 1)"
expect "headers and libraries" "libexample-dev" "$("$example" --list-libraries)"
expect "missing" "Missing: no-such-package-here | no-such-either, libexample-dev (>= 2)" \
  "$("$example" --check | sed 's/, libclang-rt-dev//' || true)"
expect "nothing missing" "" "$("$example" --check --no-tests)"

sed -i 's/dpkg (>= 1.0)/dpkg (>= 999)/' "$folder/debian/control"
expect "an old version" "Missing: dpkg (>= 999)" "$("$example" --check --no-tests || true)"

# This machine builds the tree, so all dependencies of the tree are installed.
expect "this machine" "" "$("$tool" --check --no-tests)"
