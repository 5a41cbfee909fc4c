#!/bin/sh
# Builds the JavaScript engine as a static library from the Debian source package, once per machine.
#
# For machines whose release has no package of the engine. The source package of a later release is
# taken through the machine's own apt source (same host, transport and keyring, only the suite
# differs) under an apt configuration made for this run, so /etc/apt and apt's lists stay untouched.
# apt verifies the archive's signatures; the checksums below hold on top of them. The package is
# built as its maintainers unpack it, patches applied, nothing changed.
#
# Prints on standard output the folder that holds include/quickjs/quickjs.h and
# lib/quickjs/libquickjs.a; says on standard error what it does, a line a step. Runs as any user, and
# several at once: one builds, the others wait for it.
#
# Environment: CC, the compiler (cc); for another architecture AR, its archiver, and
# PROXYMANAGER_QUICKJS_FLAGS, what the compiler is told besides; PROXYMANAGER_QUICKJS_CACHE, the
# folder that keeps the result (${XDG_CACHE_HOME:-~/.cache}/proxymanagerd).
set -eu

package=quickjs
suite=trixie
version=2025.04.26-1
origin_sha256=ec81da5b3249ed648dbc7df4a1654988910e66a118d9b71cb63534216efcfbbe
debian_sha256=33e980d4737e83419ae2fb3c833a9d1813ee5edbf2e3da129a66f8bffac23862
# The package's Makefile adds -O2 -fwrapv. Scripts come from strangers, hence the hardening.
flags='-fPIC -fstack-protector-strong -fstack-clash-protection -D_FORTIFY_SOURCE=2'
flags="$flags${PROXYMANAGER_QUICKJS_FLAGS:+ $PROXYMANAGER_QUICKJS_FLAGS}"

say() { echo "quickjs: $*" >&2; }
fail() {
  say "$*"
  exit 1
}
. "$(dirname "$0")/../kept_folder.sh"

for tool in apt-get dpkg-source flock make sha256sum xz "${CC:=cc}"; do
  command -v "$tool" >/dev/null || fail "$tool is missing (packages dpkg-dev, gcc, make, xz-utils)"
done

cache=${PROXYMANAGER_QUICKJS_CACHE:-${XDG_CACHE_HOME:-${HOME:?}/.cache}/proxymanagerd}
key=$({ "$CC" --version; "$CC" -dumpmachine; echo "$flags $origin_sha256 $debian_sha256"; } |
  sha256sum | cut -c1-12)
kept_folder "$cache" "quickjs-$version" "$key"
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

# repeat_entry FILE NUMBER: that entry on standard output, as a source of $suite.
repeat_entry() {
  case $1 in
    *.sources)
      awk -v number="$2" -v suite="$suite" '
        /^#/ { next }
        /^[ \t]*$/ { inside = 0; next }
        !inside { inside = 1; paragraph++ }
        paragraph != number { next }
        /^[^ \t]/ { field = tolower($0); sub(/:.*/, "", field)
                    replaced = field ~ /^(types|suites|components)$/ }
        !replaced { print }
        END { print "Types: deb-src\nSuites: " suite "\nComponents: main" }' "$1"
      ;;
    *)
      sed -nE "$2s/^[[:space:]]*deb(-src)?[[:space:]]+(\[[^]]*\][[:space:]]+)?([^[:space:]]+).*/\
deb-src \2\3 $suite main/p" "$1"
      ;;
  esac
}

# fetch FILE NUMBER: downloads the package into $work/source; fails where that entry has it not.
fetch() {
  case $1 in *.sources) list="$work/own.sources" ;; *) list="$work/own.list" ;; esac
  repeat_entry "$1" "$2" >"$list"
  (
    cd "$work/source"
    set -- apt-get -q -c "$work/apt.conf" -o "Dir::Etc::SourceList=$list"
    "$@" update && "$@" source --download-only "$package=$version"
  ) >"$work/fetch.log" 2>&1
}

fetched=
for entry in $(entries); do
  say "fetching $package $version ($suite) through $entry"
  if fetch "${entry%:*}" "${entry##*:}"; then
    fetched=yes
    break
  fi
  sed 's/^/quickjs:   /' "$work/fetch.log" >&2
done
[ -n "$fetched" ] || fail "no apt source of this machine gave the source package"

say "checking and unpacking"
(cd "$work/source" && sha256sum --check --quiet --strict >&2 <<EOF
$origin_sha256  ${package}_${version%-*}.orig.tar.xz
$debian_sha256  ${package}_$version.debian.tar.xz
EOF
) || fail "the source package is not the one that was reviewed"
# Its signature on the .dsc is an uploader's; what counts is the archive's, which apt has verified.
dpkg-source --no-check -x "$work/source/${package}_$version.dsc" "$work/tree" \
  >"$work/unpack.log" 2>&1 || fail "unpacking failed: $(cat "$work/unpack.log")"

say "building (a minute or so)"
(cd "$work/tree" && CFLAGS="$flags" make -j "$(nproc)" CC="$CC" ${AR:+AR="$AR"} CROSS_PREFIX= \
  CONFIG_LTO= libquickjs.a) >"$work/make.log" 2>&1 || {
  tail -n 30 "$work/make.log" >&2
  fail "building failed"
}

mkdir -p "$staging/include/quickjs" "$staging/lib/quickjs"
install -m 644 "$work/tree/quickjs.h" "$staging/include/quickjs/"
install -m 644 "$work/tree/libquickjs.a" "$staging/lib/quickjs/"
install -m 644 "$work/tree/LICENSE" "$staging/"
keep
