#!/usr/bin/env bash
# Builds the Debian packages twice from the source tarball, without a network and in different
# environments, and compares the bytes. Afterwards, FOLDER/out has the packages of the first build,
# and FOLDER/source has the unpacked source.
# usage: reproducible.sh TREE FOLDER
set -euo pipefail
tree=$1 folder=$2
rm -rf "$folder"
mkdir -p "$folder/tarball" "$folder/out"
tarball=$("$tree/packaging/make_source_tarball.sh" "$folder/tarball")

# build NAME COMMAND...: builds below FOLDER/NAME; COMMAND starts the build.
build() {
  local place=$folder/$1
  shift
  mkdir -p "$place" "$folder/no-home"
  tar -C "$place" --strip-components=1 --one-top-level=source -xf "$tarball"
  # The build's home folder is empty, so it contains no engine of an earlier build. The only network
  # interface is a loopback that is down.
  (cd "$place/source" && env -u XDG_CACHE_HOME "HOME=$folder/no-home" \
    unshare --net --uts -- "$@" dpkg-buildpackage --build=binary --build-profiles=nocheck -us -uc) \
    >"$place/log" 2>&1 || {
    tail -n 40 "$place/log" >&2
    return 1
  }
}
jobs=$(nproc)
# No folder has a blank in its name, because dpkg-buildflags cannot remove such a path from the
# programs.
(umask 022 && build one env TZ=UTC LC_ALL=C.UTF-8 DEB_BUILD_OPTIONS="parallel=$jobs")
(umask 002 && build "two/in-a-longer-place" sh -c 'hostname elsewhere && exec "$@"' - \
  env TZ=Pacific/Kiritimati LC_ALL=C LANGUAGE=de CAPTURE=1 DEB_BUILD_OPTIONS="parallel=$((jobs + 1))")

cp "$folder"/one/*proxymanager*_* "$folder/out"
status=0
for package in "$folder"/one/*.deb; do
  other="$folder/two/in-a-longer-place/$(basename "$package")"
  cmp "$package" "$other" || {
    status=1
    diffoscope --no-progress "$package" "$other" || :
  }
done
[ "$status" = 0 ] || exit 1
echo "$(find "$folder/out" -name '*.deb' | wc -l) packages have the same bytes twice"

# The source package, as an owner would upload it. lintian does not read overrides through the link
# debian.
mkdir "$folder/upload"
tar -C "$folder/upload" --strip-components=1 --one-top-level=source -xf "$tarball"
(cd "$folder/upload/source" && rm debian && mv packaging/debian debian && ln -s ../debian packaging/debian &&
  dpkg-buildpackage --build=source --build-profiles=nocheck -d -us -uc >../log 2>&1)
lintian --allow-root --fail-on error,warning --tag-display-limit 0 "$folder"/upload/*_source.changes
