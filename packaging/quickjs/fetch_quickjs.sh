#!/bin/sh
# Fetches the source of the JavaScript engine, QuickJS-NG, once per machine.
#
# For machines whose release has no package of the engine that is recent enough. apt fetches the
# upstream tarball of a later suite from the machine's own source: same host, transport and keyring,
# only another suite. The script makes an apt configuration for this run, and does not change
# /etc/apt or apt's lists. The archive proves the content: apt verifies the signature of the suite's
# index, and checks the tarball against the checksum in this index. No checksum is pinned here,
# because the archive replaces each version by the next one. The script takes the suite's current
# version, and prints it.
#
# Prints on standard output the folder that holds the unpacked source; reports on standard error what
# it does, one line a step. Any user can run it, and several at once: one fetches, the others wait.
#
# Environment: PROXYMANAGER_ENGINE_CACHE, the folder that keeps the result
# (${XDG_CACHE_HOME:-~/.cache}/proxymanagerd). A result is kept until somebody removes it. The next
# run then takes the version that the suite has at that time.
set -eu

package=quickjs-ng
suite=trixie-backports
# The first version without the holes of docs/security/; cmake/quickjs.cmake refuses an older one.
reviewed=0.16.2

say() { echo "quickjs: $*" >&2; }
fail() {
  say "$*"
  exit 1
}
. "$(dirname "$0")/../kept_folder.sh"

for tool in apt-get flock gzip sha256sum tar; do
  command -v "$tool" >/dev/null || fail "$tool is missing"
done

cache=${PROXYMANAGER_ENGINE_CACHE:-${XDG_CACHE_HOME:-${HOME:?}/.cache}/proxymanagerd}
kept_folder "$cache" "$package-source" "$suite-$reviewed"
mkdir "$work/lists" "$work/cache"
folder_for_apt "$work/source"

# Read after the machine's configuration, so proxies and credentials of the machine hold, while its
# hooks (which refresh other programs' caches) do not run for lists that are not the machine's.
cat >"$work/apt.conf" <<EOF
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
Dir::Etc::SourceParts "/dev/null";
Dir::State::Lists "$work/lists";
Dir::Cache "$work/cache";
APT::Get::AllowUnauthenticated "false";
Acquire::AllowInsecureRepositories "false";
Acquire::AllowWeakRepositories "false";
Acquire::AllowDowngradeToInsecureRepositories "false";
Acquire::Retries "3";
EOF

# entries: the machine's source entries for its own release, as FILE:NUMBER; the number is a line of
# a .list file, a paragraph of a .sources file.
entries() {
  release=$(. /etc/os-release && echo "${VERSION_CODENAME:-unstable}")
  apt-get indextargets --no-release-info --format '$(SOURCESENTRY) $(RELEASE)' \
    'Created-By: Packages' 'Component: main' |
    awk -v own="$release" '
      BEGIN { split(own " stable oldstable testing unstable sid", names)
              for (i in names) wanted[names[i]] = 1 }
      ($2 in wanted) && !seen[$1]++ { print $1 }'
}

# repeat_entry FILE NUMBER: that entry on standard output, as a source of $suite. What exempts the
# entry from verification (trusted, allow-insecure and the like) is left out.
repeat_entry() {
  case $1 in
    *.sources)
      awk -v number="$2" -v suite="$suite" '
        /^#/ { next }
        /^[ \t]*$/ { inside = 0; next }
        !inside { inside = 1; paragraph++ }
        paragraph != number { next }
        /^[^ \t]/ { field = tolower($0); sub(/:.*/, "", field)
                    replaced = field ~ /^(types|suites|components|trusted|allow-.*)$/ }
        !replaced { print }
        END { print "Types: deb-src\nSuites: " suite "\nComponents: main" }' "$1"
      ;;
    *)
      sed -nE "$2{
        s/^[[:space:]]*deb(-src)?[[:space:]]+(\[[^]]*\][[:space:]]+)?([^[:space:]]+).*/deb-src \2\3 $suite main/
        s/([[ ])(trusted|allow-[a-z-]+)=[^] ]*/\1/gI
        s/ +/ /g; s/\[ /[/; s/ \]/]/; s/\[\] //
        p }" "$1"
      ;;
  esac
}

# fetch FILE NUMBER: downloads the tarball into $work/source; fails if that entry does not have it.
fetch() {
  case $1 in *.sources) list="$work/own.sources" ;; *) list="$work/own.list" ;; esac
  repeat_entry "$1" "$2" >"$list"
  (
    cd "$work/source"
    set -- apt-get -q -c "$work/apt.conf" -o "Dir::Etc::SourceList=$list"
    "$@" update && "$@" source --tar-only --download-only "$package"
  ) >"$work/fetch.log" 2>&1
}

tarball=
for entry in $(entries); do
  say "fetching $package of $suite through $entry"
  if fetch "${entry%:*}" "${entry##*:}"; then
    tarball=$(find "$work/source" -name "${package}_*.orig.tar.*" ! -name "*.asc")
    [ -z "$tarball" ] || break
  fi
  sed 's/^/quickjs:   /' "$work/fetch.log" >&2
done
[ -n "$tarball" ] || fail "no apt source of this machine gave the engine's source; \
-DPROXYMANAGER_ENGINE_SOURCE=DIR builds from a folder that has it"

version=${tarball##*_}
version=${version%.orig.tar.*}
checksum=$(sha256sum "$tarball" | cut -d ' ' -f 1)
say "version $version, SHA-256 $checksum, verified by the signed index of $suite"
[ "$version" = "$reviewed" ] || say "the suite has replaced $reviewed by $version"

tar -xf "$tarball" -C "$staging" --strip-components=1 --no-same-owner --no-same-permissions
keep
