#!/usr/bin/env bash
# Measures the daemon: whole answers on a bus, compared with an echo service, and parts of answers.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

usage() {
  cat <<EOF
usage: ./bench.sh [options]

Installs what is missing, builds the daemon and the benchmarks, and prints

  - whole answers over a private message bus, each as a ratio to those of an echo service that gives
    the same answer, taken in turn in one run, with a reader on /dev/log throughout; again with all of
    them on one processor
  - what an answer costs programs that ask: proxymanagerctl beside dbus-send, the client library
    beside a bare call
  - how the answers' cost grows with the number of clients, start, a new script, memory, wake-ups
  - what proxymanagerctl needs to explain an answer of a script, by the length of the script
  - the parts: the cache, the parsing of results, public suffixes, evaluation and its sandbox, with
    the order in which their cost grows; what a process of its own costs a download

Needs root, for a mount namespace in which the daemon's fixed paths are its own. A busy machine gives
other figures; the ratios bear that better than the rest.

  --json DIR   write the figures there, as whole_answers.json, whole_answers_one_cpu.json, parts.json,
               programs.json, workbench.json and pac_engine.json
               (default: build/bench)
  --peers      instead of all that, the same answers by glib-pacrunner, libproxy and pacparser of
               Debian, beside the daemon's in one run; they are unpacked into a cache, not installed
  --relay      instead of all that, the relay beside tinyproxy, Squid, haproxy and socat, in one run;
               those that Debian would start as services are unpacked into a cache
  --quick      fewer rounds, for a first impression
  --build DIR  build there (default: build/bench)
  -j N         build with N processes at once (default: one a processor)
  --help       this text
EOF
}

build=$top/build/bench json='' quick=no peers=no relay=no jobs=$(nproc)
while [ $# -gt 0 ]; do
  case $1 in
    --json) json=${2:?--json needs a folder} && shift ;;
    --quick) quick=yes ;;
    --peers) peers=yes ;;
    --relay) relay=yes ;;
    --build) build=${2:?--build needs a folder} && shift ;;
    -j) jobs=${2:?-j needs a number} && shift ;;
    -j?*) jobs=${1#-j} ;;
    --help | -h) usage && exit 0 ;;
    *) usage >&2 && exit 2 ;;
  esac
  shift
done
json=${json:-$build}
mkdir -p "$json"

step() { printf '\n==> %s\n' "$*"; }

# The benchmark library prints notes about the machine's clock and load. They go to $json/NAME.log.
parts() {
  local name=$1
  shift
  "$build/out/bench/${name}_bench" --benchmark_format=json "$@" >"$json/$name.json" \
    2>"$json/$name.log"
}

whole=(--rounds 41 --calls 300)
programs=()
workbench=()
part=(--benchmark_min_time=0.2 --benchmark_repetitions=5)
if [ "$quick" = yes ]; then
  whole=(--rounds 11 --calls 100)
  programs=(--rounds 51)
  workbench=(--rounds 3)
  part=(--benchmark_min_time=0.05)
fi

step "Looking for what is missing on this machine"
"$top/packaging/dependencies.sh"
step "Building in $build"
cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPROXYMANAGER_BENCH=ON \
  -DPROXYMANAGER_TESTS=OFF
cmake --build "$build" -j "$jobs"

if [ "$peers" = yes ]; then
  step "Answers of other programs"
  options=()
  [ "$quick" = no ] || options=(--rounds 5 --calls 100)
  PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$top/bench/whole/peers.py" "--build=$build" \
    "--json=$json/peers.json" "${options[@]}"
  exit 0
fi

if [ "$relay" = yes ]; then
  step "Unpacking the other proxies"
  # shellcheck disable=SC2046  # a list of names
  programs=$("$top/tests/support/programs_root.sh" $(cat "$top/tests/relay/programs.txt"))
  step "The relay and other proxies"
  options=()
  [ "$quick" = no ] || options=(--rounds 2 --seconds 0.5)
  PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$top/bench/relay/relay_bench.py" "--build=$build" \
    "--programs=$programs" "--json=$json/relay.json" "${options[@]}"
  exit 0
fi

step "Whole answers"
PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$top/bench/whole/whole_answers.py" "--build=$build" \
  "--json=$json/whole_answers.json" "${whole[@]}"
step "Whole answers, all programs on one processor"
# All programs use one processor. So none of them runs in parallel, and the time includes all the
# work.
PYTHONDONTWRITEBYTECODE=1 taskset --cpu-list 0 /usr/bin/python3 \
  "$top/bench/whole/whole_answers.py" "--build=$build" --only cases \
  "--json=$json/whole_answers_one_cpu.json" "${whole[@]}"
step "Programs that ask"
PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$top/bench/whole/programs.py" "--build=$build" \
  "--json=$json/programs.json" "${programs[@]}"
step "The workbench"
/usr/bin/python3 "$top/bench/workbench.py" "--build=$build" "--json=$json/workbench.json" "${workbench[@]}"
step "Parts"
parts parts "${part[@]}"
parts pac_engine "${part[@]}"
env -u http_proxy -u all_proxy -u ALL_PROXY "$build/out/bench/transfer_cost" | tee "$json/transfer_cost.txt"
/usr/bin/python3 "$top/bench/print_parts.py" "$json/parts.json" "$json/pac_engine.json"
