#!/bin/sh
# Makes a release tarball of the checked-out commit. The tarball also contains the script engine's
# source, in packaging/quickjs/source. So a build of the tarball needs no network, but a build of
# the repository does.
#
# usage: packaging/make_source_tarball.sh [FOLDER]
# Writes these files into FOLDER (default: the current folder), and prints the path of the tarball:
#   proxymanagerd-VERSION.tar.gz    the source
#   proxymanagerd-VERSION.cdx.json  its bill of materials (CycloneDX)
#   SHA256SUMS                      the checksums of both files
#
# The same commit and engine always give the same bytes, for every user, machine and time.
set -eu
umask 022
export LC_ALL=C TZ=UTC
unset TAR_OPTIONS GZIP

folder=$(realpath "${1:-.}")
cd "$(dirname "$0")/.."
version=$(sed -n 's/^project(proxymanagerd VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
name=proxymanagerd-$version
engine=$(packaging/quickjs/fetch_quickjs.sh)

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
trap 'exit 1' HUP INT TERM
# The git settings of the user must have no effect.
git -c tar.umask=0022 -c core.autocrlf=false archive --prefix="$name/" HEAD | tar -x -C "$work"
mkdir "$work/$name/packaging/quickjs/source"
tar -c -C "$engine" . | tar -x -C "$work/$name/packaging/quickjs/source"

date=$(git log -1 --format=%ct)
tar -c -C "$work" --format=gnu --sort=name --mtime="@$date" --owner=0 --group=0 --numeric-owner \
  --mode=u=rwX,go=rX "$name" | gzip -9n >"$folder/$name.tar.gz"
cp "$work/$name/docs/security/sbom.cdx.json" "$folder/$name.cdx.json"
(cd "$folder" && sha256sum "$name.tar.gz" "$name.cdx.json" >SHA256SUMS)
echo "$folder/$name.tar.gz"
