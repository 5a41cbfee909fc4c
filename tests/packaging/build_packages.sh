#!/usr/bin/env bash
# Builds the Debian packages in FOLDER/out from a copy of the tree, and checks them with lintian.
# usage: build_packages.sh TREE FOLDER
#
# The copy keeps its earlier build, so only changed files are compiled again.
set -euo pipefail
tree=$1 folder=$2
copy=$folder/tree out=$folder/out
rm -rf "$out"
mkdir -p "$copy" "$out"

if [ -n "${PROXYMANAGER_PACKAGES-}" ]; then
  cp "$PROXYMANAGER_PACKAGES"/*proxymanager* "$out"
else
  # The files that git tracks or would add. Files that were removed from the tree are also removed
  # from the copy.
  files=$(mktemp)
  trap 'rm -f "$files"' EXIT
  (cd "$tree" && git -c safe.directory='*' ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' file; do
      if [ -e "$file" ] || [ -L "$file" ]; then printf '%s\0' "$file"; fi
    done) >"$files"
  find "$copy" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} +
  tar -C "$tree" --null --files-from="$files" -cf - | tar -C "$copy" -xf -
  # No test reads debug symbols, and they would take half of the time of the build. Paths in objects are
  # those of ./test.sh's build, so that ccache has most objects already. debhelper gives the build an empty
  # home, so the path of the cache is set.
  cache=$(ccache --get-config cache_dir)
  (cd "$copy" && DEB_BUILD_OPTIONS="noautodbgsym reproducible=-all" \
    DEB_CFLAGS_APPEND=-g0 DEB_CXXFLAGS_APPEND=-g0 \
    CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache \
    CCACHE_DIR=$cache CCACHE_BASEDIR=$tree CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=locale \
    dpkg-buildpackage --build=binary --build-profiles=nocheck --no-pre-clean -us -uc)
  mv "$folder"/*proxymanager*_* "$out"
  # Git must ignore every file that the build makes, because people also build the packages in the
  # tree itself. The link debian points to packaging/debian.
  seen=$(cd "$copy" && find . -path ./build -prune -printf '%P/\n' -o -type f -printf '%P\n' | sort |
    comm -23 - <(tr '\0' '\n' <"$files" | sort) |
    git -c safe.directory='*' -C "$tree" check-ignore --no-index --verbose --non-matching --stdin |
    sed -n 's/^::\t//p')
  [ -z "$seen" ] || {
    printf 'git does not ignore what the package build left:\n%s\n' "$seen" >&2
    exit 1
  }
fi

# dpkg refuses to install a package if another package has the same file.
twice=$(for package in "$out"/*.deb; do
  dpkg-deb --fsys-tarfile "$package" | tar -t | grep -v '/$'
done | sort | uniq -d)
[ -z "$twice" ] || {
  printf 'two packages have the same file:\n%s\n' "$twice" >&2
  exit 1
}

# The build fails if lintian reports an error or a warning, or an override that has no effect.
lintian --allow-root --fail-on error,warning --tag-display-limit 0 "$out"/*.changes
unused=$(lintian --allow-root --tags unused-override,mismatched-override "$out"/*.changes)
[ -z "$unused" ] || {
  echo "$unused" >&2
  exit 1
}
