#!/usr/bin/env bash
# Runs the fuzz targets of a build and prints a table: run.sh BUILD MINUTES JOBS
#
# The targets share the minutes equally. JOBS targets run at the same time. Each target begins with
# its corpus in the tree, and with the inputs that earlier runs in the same build have stored. The
# status is 1 if there is a finding.
set -euo pipefail
build=$1 minutes=$2 jobs=$3
source=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

# The sanitizer's quarantine alone takes 256 MiB. An ordinary input takes only some milliseconds.
readonly memory_mib=1024 input_seconds=10

# fuzz NAME LONGEST SECONDS: runs one target. Writes its output to a log, and its status to a file
# if it fails.
fuzz() {
  local name=$1 longest=$2 seconds=$3 folder=$build/fuzz/$1
  local options=("-max_total_time=$seconds" "-max_len=$longest" "-timeout=$input_seconds"
    "-rss_limit_mb=$memory_mib" "-artifact_prefix=$folder/findings/" -print_final_stats=1)
  if [ -e "$source/dictionary/$name.dict" ]; then
    options+=("-dict=$source/dictionary/$name.dict")
  fi
  rm -rf "$folder/findings"
  mkdir -p "$folder/corpus" "$folder/findings"
  # timeout ends a target that hangs although libFuzzer has a time limit.
  timeout --signal=ABRT --kill-after=10 $((seconds + 60)) \
    "$build/out/fuzz/${name}_fuzz" "${options[@]}" "$folder/corpus" "$source/corpus/$name" \
    >"$folder/log" 2>&1 || echo $? >"$folder/findings/status"
}

# row NAME: prints the target's line of the table. If the target has failed, also prints how to
# reproduce the failure.
row() {
  local name=$1 folder=$build/fuzz/$1
  local findings
  findings=$(find "$folder/findings" -name status | wc -l)
  awk -v name="$name" -v findings="$findings" '
    /^stat::number_of_executed_units:/ { runs = $2 }
    /^stat::average_exec_per_sec:/ { rate = $2 }
    /^#[0-9]/ { for (i = 1; i < NF; i++) if ($i == "cov:") edges = $(i + 1) }
    END { printf "%-22s %12d %9d %7d %9d\n", name, runs, rate, edges, findings }' "$folder/log"
  if [ "$findings" -eq 0 ]; then return; fi
  { grep -m 1 -E 'does not hold:|ERROR:|runtime error:' "$folder/log" || tail -n 2 "$folder/log"; } |
    sed 's/^/    /'
  echo "    log: $folder/log, status $(cat "$folder/findings/status")"
  for file in "$folder"/findings/*-*; do
    if [ -e "$file" ]; then echo "    reproduce: $build/out/fuzz/${name}_fuzz $file"; fi
  done
}

mapfile -t targets <"$build/fuzz_targets"
seconds=$((minutes * 60 * jobs / ${#targets[@]}))
seconds=$((seconds > 0 ? seconds : 1))
echo "${#targets[@]} targets, $seconds s each, $jobs at once"
running=0
for target in "${targets[@]}"; do
  if [ "$running" -eq "$jobs" ]; then wait -n && running=$((running - 1)); fi
  read -r name longest <<<"$target"
  fuzz "$name" "$longest" "$seconds" &
  running=$((running + 1))
done
wait

printf '\n%-22s %12s %9s %7s %9s\n' target executions per-s edges findings
for target in "${targets[@]}"; do row "${target%% *}"; done
if compgen -G "$build/fuzz/*/findings/status" >/dev/null; then exit 1; fi
