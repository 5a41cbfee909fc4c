#!/bin/sh
# Installs the packages that packaging/debian/control names for building and testing this tree. Uses
# only plain sh, dpkg and apt-get, because a new machine has nothing else.
set -eu

usage() {
  cat <<EOF
usage: packaging/dependencies.sh [--no-tests] [--package] [--cross] [--browsers]
                                 [--reproducible] [--list | --list-libraries | --check]

Installs the missing packages that are needed to build and test this tree. If none is missing, it
prints nothing and takes no time.

  --no-tests  leave out packages that only the tests need
  --package   add packages that only the build of the Debian packages needs
  --cross     add packages that only a cross build needs
  --browsers  add the browsers that only ./test.sh --browsers needs
  --reproducible
              add packages that only ./test.sh --reproducible needs
  --list      print the needed packages, one dependency in each line, and install nothing
  --list-libraries
              of these, print only those with headers and libraries, which a cross build needs for
              the other architecture
  --check     print the missing packages and install nothing; status 1 if a package is missing
EOF
}

tests=yes package=no cross=no browsers=no reproducible=no action=install
for option in "$@"; do
  case $option in
    --no-tests) tests=no ;;
    --package) package=yes ;;
    --cross) cross=yes ;;
    --browsers) browsers=yes ;;
    --reproducible) reproducible=yes ;;
    --list | --list-libraries | --check) action=${option#--} ;;
    --help) usage && exit 0 ;;
    *) usage >&2 && exit 2 ;;
  esac
done

control=$(dirname "$0")/debian/control

# Prints the field Build-Depends, one dependency in each line: "a", "a (>= 1)" or "a | b".
needed() {
  awk -v tests="$tests" -v package="$package" -v cross="$cross" \
    -v browsers="$browsers" -v reproducible="$reproducible" '
    /^#/ { next }
    /^[^ \t]/ { inside = 0 }
    /^Build-Depends:/ { inside = 1; sub(/^[^:]*:/, "") }
    inside { field = field " " $0 }
    END {
      count = split(field, entries, ",")
      for (i = 1; i <= count; i++) {
        entry = entries[i]
        if (entry ~ /<!nocheck>/ && tests == "no") continue
        if (entry ~ /<pkg.proxymanagerd.cross>/ && cross == "no") continue
        if (entry ~ /<pkg.proxymanagerd.browsers>/ && browsers == "no") continue
        if (entry ~ /<pkg.proxymanagerd.reproducible>/ && reproducible == "no") continue
        if (entry ~ /^ *(debhelper|dh-python)/ && package == "no") continue
        gsub(/<[^>]*>/, "", entry)
        gsub(/[ \t]+/, " ", entry)
        gsub(/^ | $/, "", entry)
        if (entry != "") print entry
      }
    }' "$control"
}

# Prints one line for each needed dependency that no installed package satisfies. A package
# satisfies a dependency by its own name or by a name that it provides. The function calls
# dpkg-query once for all dependencies, and compares versions only if a dependency names a version.
missing() {
  # shellcheck disable=SC2016  # the fields are dpkg-query's, not the shell's
  dpkg-query -W -f '${db:Status-Status}|${Package}|${Version}|${Provides}\n' |
    awk -F '|' '
      NR == FNR { if ($1 != "installed") next
        version[$2] = $3
        count = split($4, provided, ",")
        for (i = 1; i <= count; i++) {
          name = provided[i]; own = ""
          if (match(name, /\(= [^)]*\)/)) own = substr(name, RSTART + 3, RLENGTH - 4)
          sub(/\(.*/, "", name); gsub(/[ \t]/, "", name)
          versions[name] = versions[name] " " own; virtual[name] = 1
        }
        next
      }
      function met(alternative,    name, relation, wanted, parts, list, i) {
        name = alternative; sub(/[ (].*/, "", name)
        if (!(name in version) && !(name in virtual)) return 0
        if (alternative !~ /\(/) return 1
        match(alternative, /\(.*\)/)
        split(substr(alternative, RSTART + 1, RLENGTH - 2), parts, " ")
        split(version[name] versions[name], list, " ")
        for (i in list)
          if (system("dpkg --compare-versions " list[i] " \"" parts[1] "\" " parts[2]) == 0) return 1
        return 0
      }
      { whole = $0; for (i = 1; i <= NF; i++) {
          gsub(/^ +| +$/, "", $i)
          if (met($i)) next
        }
        print whole
      }' - "$wanted"
}

wanted=$(mktemp)
trap 'rm -f "$wanted"' EXIT
needed >"$wanted"
if [ "$action" = list ]; then
  cat "$wanted"
  exit 0
fi
# The libraries are recognised by their names. Two libraries are left out: clang's own library,
# because clang builds only for this machine, and the script engine, which is built from source if
# the package is missing.
if [ "$action" = list-libraries ]; then
  grep -E '^(lib|nlohmann).*-dev( |$)' "$wanted" | grep -v -e '^libclang' -e '^libqjs' | sed 's/ .*//'
  exit 0
fi

lacking=$(missing)
[ -n "$lacking" ] || exit 0
echo "Missing: $(echo "$lacking" | paste -s -d , | sed 's/,/, /g')"
[ "$action" = install ] || exit 1

root=
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || {
    echo "Installing them needs root, and there is no sudo here. Install them as root and try again." >&2
    exit 1
  }
  root=sudo
fi
apt() {
  $root env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=300 "$@"
}
# The installed packages must not start their services on this machine, because the tests start
# their own. If the machine already has a setting for this, the setting stays.
policy=/usr/sbin/policy-rc.d
if [ ! -e "$policy" ]; then
  trap '$root rm -f "$policy"; rm -f "$wanted"' EXIT
  printf '#!/bin/sh\nexit 101\n' | $root tee "$policy" >/dev/null
  $root chmod 755 "$policy"
fi
install() {
  apt satisfy --yes --no-install-recommends "$(echo "$lacking" | paste -s -d ,)"
}

# A new machine has no package lists. A machine that was off for a long time has old lists.
if ! ls /var/lib/apt/lists/*_Packages* >/dev/null 2>&1; then
  echo "Fetching the package lists"
  apt update
  install
elif ! install; then
  echo "Fetching the package lists again"
  apt update
  install
fi
