#!/bin/sh
# Fetches the source of the JavaScript engine, QuickJS-NG, once per machine.
#
# This is for Debian releases whose package of the engine is too old or missing. apt fetches the
# upstream tarball of a later suite from the machine's own source: only the suite is different; host,
# transport and keyring are the same. The script makes an apt configuration for this run, and does
# not change /etc/apt or apt's lists. The archive's signature proves that the tarball is genuine: apt
# verifies the signature of the suite's index, and compares the tarball with the checksum in this
# index. This script contains no checksum, because the archive replaces each version by the next one.
# The script fetches the suite's current version, and prints which version this is.
#
# Prints the folder with the unpacked source on standard output, and one line for each step on
# standard error. Any user can run the script. If it runs several times at once, one run fetches the
# source, and the other runs wait.
#
# Environment: PROXYMANAGER_ENGINE_CACHE, the folder that keeps the result
# (${XDG_CACHE_HOME:-~/.cache}/proxymanagerd). The script never removes a result. If you remove it,
# the next run fetches the version that the suite has then.
set -eu

package=quickjs-ng
suite=trixie-backports
# The first version without the vulnerabilities in docs/security/; cmake/quickjs.cmake refuses an
# older version.
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

# apt reads this file after the machine's configuration. So proxies and credentials of the machine
# apply, but the machine's apt hooks do not run: they would refresh other programs' caches from the
# lists of this run.
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

# entries: prints the machine's source entries for its own release as FILE:NUMBER. The number is the
# line of a .list file, or the paragraph of a .sources file.
entries() {
  release=$(. /etc/os-release && echo "${VERSION_CODENAME:-unstable}")
  apt-get indextargets --no-release-info --format '$(SOURCESENTRY) $(RELEASE)' \
    'Created-By: Packages' 'Component: main' |
    awk -v own="$release" '
      BEGIN { split(own " stable oldstable testing unstable sid", names)
              for (i in names) wanted[names[i]] = 1 }
      ($2 in wanted) && !seen[$1]++ { print $1 }'
}

# repeat_entry FILE NUMBER: prints this entry as a source of $suite. Options that turn off the
# verification of the entry (for example trusted and allow-insecure) are left out.
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

# fetch FILE NUMBER: downloads the tarball into $work/source. It fails if the source of that entry
# does not have the tarball.
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
