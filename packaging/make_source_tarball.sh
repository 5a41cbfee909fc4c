#!/bin/sh
# Makes a release tarball of the checked-out commit that also contains the script engine's source, in
# packaging/quickjs/source: it builds without the network that a build from the repository needs.
#
# usage: packaging/make_source_tarball.sh [FOLDER]
# Writes FOLDER/proxymanagerd-VERSION.tar.gz (FOLDER: the present one) and prints its path.
set -eu

folder=$(realpath "${1:-.}")
cd "$(dirname "$0")/.."
version=$(sed -n 's/^project(proxymanagerd VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
name=proxymanagerd-$version
engine=$(packaging/quickjs/fetch_quickjs.sh)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
git archive --prefix="$name/" HEAD | tar -x -C "$work"
mkdir "$work/$name/packaging/quickjs/source"
tar -c -C "$engine" . | tar -x -C "$work/$name/packaging/quickjs/source"

# The same commit and engine give the same bytes, whoever makes them and when.
date=$(git log -1 --format=%cI)
tar -c -C "$work" --sort=name --mtime="$date" --owner=0 --group=0 --numeric-owner "$name" |
  gzip -n >"$folder/$name.tar.gz"
echo "$folder/$name.tar.gz"
