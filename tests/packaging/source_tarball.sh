#!/usr/bin/env bash
# Makes the source tarball twice, from two clones and in different environments, and compares the
# bytes.
# usage: source_tarball.sh TREE
set -euo pipefail
tree=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "$*" >&2
  exit 1
}

# The copies also contain changes that are not committed yet. The files of each copy have their own
# dates.
copy() {
  git -c safe.directory='*' clone -q --no-hardlinks "$tree" "$1"
  (cd "$tree" && git -c safe.directory='*' ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' file; do
      if [ -e "$file" ] || [ -L "$file" ]; then printf '%s\0' "$file"; fi
    done | tar --null --files-from=- -cf - --mtime="$2") | tar -C "$1" -xf -
  git -C "$1" add -A
  GIT_AUTHOR_DATE=@1700000000 GIT_COMMITTER_DATE=@1700000000 git -C "$1" -c user.name=a -c user.email=a@b.invalid \
    commit -q --allow-empty -m all
}
umask 022
copy "$work/one" @1000000000
engine=$(PROXYMANAGER_ENGINE_CACHE="${PROXYMANAGER_ENGINE_CACHE-}" "$tree/packaging/quickjs/fetch_quickjs.sh")
(cd "$work/one" && mkdir "$work/first" && TZ=Asia/Tokyo LC_ALL=C.UTF-8 packaging/make_source_tarball.sh "$work/first")

umask 077
mkdir -p "$work/a longer/place" "$work/home" "$work/second"
copy "$work/a longer/place/two" @1500000000
printf '[tar]\n  umask = 0077\n[core]\n  autocrlf = true\n' >"$work/home/.gitconfig"
cache=$(dirname "$engine")
(cd / && HOME=$work/home PROXYMANAGER_ENGINE_CACHE=$cache TZ=America/Caracas LC_ALL=C LANGUAGE=de \
  GZIP=--rsyncable TAR_OPTIONS=--exclude-vcs-ignores \
  "$work/a longer/place/two/packaging/make_source_tarball.sh" "$work/second")

(cd "$work/first" && ls && sha256sum --check --quiet SHA256SUMS)
[ "$(find "$work/first" -type f | wc -l)" = 3 ] || fail "not three files"
diff -r "$work/first" "$work/second" || {
  for of in first second; do (tar -tvzf "$work/$of"/*.tar.gz | head -n 5) >&2 || :; done
  fail "the two differ"
}
list=$(tar -tzf "$work/first"/*.tar.gz)
for file in CMakeLists.txt debian packaging/debian/control packaging/quickjs/source/quickjs.c; do
  grep -qx "proxymanagerd-[0-9.]*/$file" <<<"$list" || fail "$file is not in the tarball"
done
