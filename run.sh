#!/usr/bin/env bash
# Builds the daemon, starts it with a private bus and a web server with a PAC script, and asks it
# four questions.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

usage() {
  cat <<EOF
usage: ./run.sh [options]

Installs what is missing, builds the daemon, starts it on a message bus of its own, gives it the PAC
script docs/examples/sample.pac from a web server on the loopback interface, asks which proxy serves
each of four URLs, and then goes on until Ctrl-C. Everything it started ends with it.

  --once       end after the answers; status 0 only where all are right
  --system     use this machine's system bus (needs the installed bus policy)
  --build DIR  build there (default: build/release)
  -j N         build with N processes at once (default: one a processor)
  --help       this text
EOF
}

once=no bus=private build=$top/build/release jobs=$(nproc)
while [ $# -gt 0 ]; do
  case $1 in
    --once) once=yes ;;
    --system) bus=system ;;
    --build) build=${2:?--build needs a folder} && shift ;;
    -j) jobs=${2:?-j needs a number} && shift ;;
    -j?*) jobs=${1#-j} ;;
    --help | -h) usage && exit 0 ;;
    *) usage >&2 && exit 2 ;;
  esac
  shift
done

readonly service=com.zentu.ProxyManagerService
readonly object=/com/zentu/ProxyManagerService
readonly interface=com.zentu.ProxyManagerServiceInterface
# Each wait below ends after this many seconds: a loaded machine needs one or two.
readonly patience=30

step() { printf '\n==> %s\n' "$*"; }
fail() {
  printf '\nrun.sh: %s\n' "$*" >&2
  exit 1
}

# The daemon's script file. If it did not exist before, finish() removes it.
readonly pac_file=/tmp/proxymanager.pac
keep_pac_file=yes

# Ends all started programs in the opposite order; none outlives this script.
work=
started=()
finish() {
  local status=$? index
  trap - EXIT
  trap '' INT TERM HUP
  for ((index = ${#started[@]} - 1; index >= 0; index--)); do
    end_process "${started[index]}"
  done
  if [ "$keep_pac_file" = no ]; then rm -f "$pac_file" "$pac_file.tmp"; fi
  if [ -n "$work" ]; then rm -rf "$work"; fi
  exit "$status"
}
end_process() {
  local process=$1 end=$((SECONDS + patience))
  kill "$process" 2>/dev/null || return 0
  while kill -0 "$process" 2>/dev/null; do
    if [ "$SECONDS" -ge "$end" ]; then
      echo "run.sh: process $process does not end; killing it" >&2
      kill -KILL "$process" 2>/dev/null || true
      break
    fi
    sleep 0.05
  done
  wait "$process" 2>/dev/null || true
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# until_true WHAT PROCESS COMMAND...: repeats COMMAND until it succeeds. Fails if PROCESS, which
# should cause the success, has ended, or if the time limit is over.
until_true() {
  local what=$1 process=$2 end=$((SECONDS + patience))
  shift 2
  until "$@"; do
    if ! kill -0 "$process" 2>/dev/null; then
      cat "$work/bus.log" >&2 2>/dev/null || true
      fail_with_status "$what: the process has ended" "$process"
    fi
    [ "$SECONDS" -lt "$end" ] || fail "$what: not within $patience seconds"
    sleep 0.1
  done
}
fail_with_status() {
  local status=0
  wait "$2" || status=$?
  fail "$1 (status $status)"
}

install_missing() {
  step "Looking for what is missing on this machine"
  "$top/packaging/dependencies.sh" --no-tests
}

build_daemon() {
  step "Building the daemon in $build"
  cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPROXYMANAGER_TESTS=OFF
  cmake --build "$build" -j "$jobs"
}

refuse_second_instance() {
  local folder=/run
  if [ "$(id -u)" -ne 0 ]; then
    export XDG_RUNTIME_DIR=${XDG_RUNTIME_DIR:-$work}
    folder=$XDG_RUNTIME_DIR
  fi
  local file=$folder/proxymanagerd.pid
  # The daemon holds a lock on its run file for as long as it lives.
  if [ -e "$file" ] && ! flock --nonblock "$file" true; then
    fail "a proxymanagerd already runs here (process $(cat "$file")); end it first"
  fi
}

start_bus() {
  if [ "$bus" = system ]; then
    step "Using the system bus"
    bus_call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.GetId >/dev/null ||
      fail "there is no system bus on this machine"
    return
  fi
  step "Starting a private message bus"
  cat >"$work/bus.conf" <<EOF
<busconfig>
  <listen>unix:path=$work/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow own="$service"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
EOF
  dbus-daemon --config-file="$work/bus.conf" --nofork --nopidfile --nosyslog \
    2>"$work/bus.log" &
  started+=($!)
  export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
  until_true "The message bus" "${started[-1]}" test -S "$work/bus"
  echo "It listens on $DBUS_SYSTEM_BUS_ADDRESS"
}

bus_call() {
  local destination=$1 path=$2 member=$3
  shift 3
  dbus-send --system --print-reply --reply-timeout=10000 --dest="$destination" "$path" "$member" "$@"
}
service_call() {
  local member=$1
  shift
  bus_call "$service" "$object" "$interface.$member" "$@"
}

# Starts the web server on a random port, and tries another port if this port is in use.
start_web_server() {
  step "Serving docs/examples/sample.pac on the loopback interface"
  mkdir "$work/www"
  cp "$top/docs/examples/sample.pac" "$work/www/"
  echo '.pac:application/x-ns-proxy-autoconfig' >"$work/httpd.conf"
  local attempt server
  for ((attempt = 1; attempt <= 10; attempt++)); do
    port=$((20000 + RANDOM % 12000))
    busybox httpd -f -p "127.0.0.1:$port" -h "$work/www" -c "$work/httpd.conf" 2>/dev/null &
    server=$!
    while kill -0 "$server" 2>/dev/null; do
      if listens "$server"; then
        started+=("$server")
        echo "http://127.0.0.1:$port/sample.pac"
        return
      fi
      sleep 0.1
    done
  done
  fail "the web server did not start"
}
# Whether this process listens on the port: it must have the socket that /proc/net/tcp lists for the
# port.
listens() {
  local inode
  inode=$(awk -v port="$(printf ':%04X' "$port")" '$4 == "0A" && $2 ~ port "$" { print $10 }' /proc/net/tcp)
  [ -n "$inode" ] && find "/proc/$1/fd" -lname "socket:\[$inode\]" 2>/dev/null | grep -q .
}

start_daemon() {
  step "Starting the daemon"
  [ -e "$pac_file" ] || keep_pac_file=no
  "$build/out/sbin/proxymanagerd" &
  daemon=$!
  started+=("$daemon")
  until_true "The daemon, whose lines are in syslog" "$daemon" daemon_answers
  echo "It runs as process $daemon and has the name $service"
}
daemon_answers() { service_call checkServicestarted 2>/dev/null | grep -q 'boolean true'; }

configure() {
  step "Switching it to mode pacurl"
  service_call updateProxyconfig string:pacurl string: "string:http://127.0.0.1:$port/sample.pac" \
    boolean:false string: string: >/dev/null
  echo "Waiting until the script is fetched and loaded"
  until_true "The script" "$daemon" script_is_loaded
}
# Before the script is loaded, an answer contains only the mode.
script_is_loaded() { [ "$(ask http://ready.example/ | wc -l)" -gt 1 ]; }

# Prints the texts of the answer, one in each line: the mode, then the entries in their order.
ask() { service_call getProxyurl "string:$1" | sed -n 's/^ *string "\(.*\)"$/\1/p'; }

# question URL EXPECTED...: asks the daemon, prints the answer, and counts the answer if it is
# wrong.
wrong=0
question() {
  local url=$1 answer
  shift
  answer=$(ask "$url") || true
  printf '%-44s %s\n' "$url" "$(tail -n +2 <<<"$answer" | paste -s -d ';' | sed 's/;/; /g')"
  if [ "$answer" != "$(printf '%s\n' pacurl "$@")" ]; then
    printf '    wrong: expected %s\n' "$*"
    wrong=$((wrong + 1))
  fi
}

ask_questions() {
  step "Asking for four URLs"
  question http://printer/status DIRECT
  question https://wiki.corp.example/start "PROXY branch.corp.example:3128" DIRECT
  question http://downloads.example.net/image.iso "PROXY cache.corp.example:8080"
  question https://www.example.org/ "PROXY 10.0.0.1:8080" "PROXY 10.0.0.2:8080" \
    "SOCKS 10.0.0.3:1080"
}

stay() {
  step "The daemon goes on running; Ctrl-C ends it. To ask it yourself:"
  [ "$bus" = system ] || echo "export DBUS_SYSTEM_BUS_ADDRESS=$DBUS_SYSTEM_BUS_ADDRESS"
  echo "dbus-send --system --print-reply --dest=$service $object $interface.getProxyurl string:http://printer/"
  echo "The script it reads is $work/www/sample.pac"
  fail_with_status "the daemon has ended by itself; syslog says more" "$daemon"
}

install_missing
build_daemon
work=$(mktemp -d)
refuse_second_instance
start_bus
start_web_server
start_daemon
configure
ask_questions
if [ "$once" = no ]; then stay; fi
[ "$wrong" -eq 0 ] || fail "$wrong of four answers wrong"
step "All four answers are right"
