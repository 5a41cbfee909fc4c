#!/bin/sh
# The autopkgtest of the daemon must pass if only root may configure the daemon, and fail if
# everybody may do it. Programs of this test replace those of the system.
# usage: autopkgtest_of_the_daemon.sh TREE
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
program() {
  { echo "#!/bin/sh" && cat; } >"$work/$1"
  chmod +x "$work/$1"
}
program systemctl <<'END'
[ "$1" != show ] || echo proxymanagerd
END
program setpriv <<'END'
shift 3
NOBODY=yes exec "$@"
END
program busctl <<'END'
case $*:${NOBODY-no}:$LENIENT in
  *getProxyurl*) echo 'as 2 "manual" "http://p.example:1"' ;;
  *:yes:no) exit 1 ;;
  *) echo "i 0" ;;
esac
END
run() {
  LENIENT=$1 PATH=$work:$PATH sh "$tree/packaging/debian/tests/daemon" >"$work/output" 2>&1
}
tree=$1
run no || {
  cat "$work/output"
  echo "it fails with a daemon that lets root alone configure" >&2
  exit 1
}
if run yes; then
  echo "it passes with a daemon that lets everybody configure" >&2
  exit 1
fi
grep -q "the user nobody may configure" "$work/output"
