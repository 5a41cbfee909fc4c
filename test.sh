#!/usr/bin/env bash
# Builds everything and runs all tests; the last lines are CTest's own summary.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

usage() {
  cat <<EOF
usage: ./test.sh [options] [-- CTEST-OPTIONS...]

Installs what is missing, builds the tree with its tests and runs them all.

  --sanitizers  run them under the address, leak and undefined behaviour sanitizers, and those of
                programs with threads under the thread sanitizer, without the tests labelled "slow"
  --coverage    run all but the slow ones and those of packages, and print the coverage of lines and
                branches, file by file; a page of each below build/coverage/report
  --soak MIN    instead of the tests, ask, reconfigure and kill for so many minutes, with every answer
                judged; what follows "--" is the soak's: --seed=N repeats a schedule
  --fuzz MIN    run the fuzz targets instead (clang, libFuzzer, address and undefined behaviour
                sanitizers), so many minutes in all, and print what each did
  --cross[=ARCHITECTURE]
                build for armhf (the default) or arm64 (Debian's cross compiler and libraries), run the
                unit tests under qemu's emulation of user programs, and print the sizes of the
                installed programs
  --browsers    install Chromium and Firefox ESR and compare the helpers of PAC scripts with them instead:
                100,000 calls and 5,000 scripts; what follows "--" is the comparison's (--seed=N). Before
                that, look at the page of "pac cover" in Chromium
  --relay       run real programs through the relay instead: package managers, Chromium and Firefox, 100 MB,
                over tinyproxy, Squid, microsocks and haproxy. It installs the browsers and unpacks the rest
                into a cache
  --tidy        have clang-tidy judge the sources that are shipped
  --recipe      follow docs/installing.md in a clean system: build, install and start from source
  --reproducible
                build the packages twice from the source tarball, without a network, compare their bytes, and
                run their autopkgtests in a clean system
  --programs    run programs that are not on this machine: of Qt, Node, Go and Java, openconnect, the desktop
                portal. They are unpacked into a cache
  --settings-kills
                kill the settings service at 200 moments, in a system whose NetworkManager feeds it
  --werror      treat warnings of the compiler as errors
  --build DIR   build below this folder (default: build)
  -j N          N processes at once for building, and four times as many for testing, as most tests
                wait (default: one a processor)
  --help        this text

What follows "--" is given to ctest: ./test.sh -- -R RunFile
EOF
}

mode=plain build=$top/build jobs=$(nproc) werror=OFF minutes=0 build_options=() dependencies=(--package)
while [ $# -gt 0 ]; do
  case $1 in
    --sanitizers) mode=sanitizers ;;
    --coverage) mode=coverage ;;
    --cross | --cross=armhf) mode=cross preset=armhf triplet=arm-linux-gnueabihf ;;
    --cross=arm64) mode=cross preset=arm64 triplet=aarch64-linux-gnu ;;
    --browsers) mode=browsers dependencies+=(--browsers) ;;
    --relay) mode=relay dependencies+=(--browsers) ;;
    --tidy) mode=tidy ;;
    --recipe) mode=recipe ;;
    --reproducible) mode=reproducible dependencies+=(--reproducible) ;;
    --programs) mode=programs ;;
    --settings-kills) mode=settings_kills ;;
    --soak) mode=soak minutes=${2:?--soak needs minutes} && shift ;;
    --fuzz) mode=fuzz minutes=${2:?--fuzz needs minutes} && shift ;;
    --werror) werror=ON ;;
    --build) build=${2:?--build needs a folder} && shift ;;
    -j) jobs=${2:?-j needs a number} && shift ;;
    -j?*) jobs=${1#-j} ;;
    --help | -h) usage && exit 0 ;;
    --) shift && break ;;
    *) usage >&2 && exit 2 ;;
  esac
  shift
done
ctest_options=("$@")
if [ "$mode" = soak ] && ! [[ $minutes =~ ^[0-9]+(\.[0-9]+)?$ ]]; then
  echo "$0: --soak needs minutes as a number, not \"$minutes\"" >&2
  exit 2
fi
if [ "$mode" = fuzz ] && ! [[ $minutes =~ ^[1-9][0-9]{0,4}$ ]]; then
  echo "test.sh: --fuzz needs a whole number of minutes, not '$minutes'" >&2
  exit 2
fi

step() { printf '\n==> %s\n' "$*"; }

# build_tree NAME CMAKE-OPTIONS...: configures and builds $build/NAME with its tests.
build_tree() {
  local folder=$build/$1
  shift
  step "Building in $folder"
  "${launcher[@]}" cmake -S "$top" -B "$folder" -G Ninja -DPROXYMANAGER_TESTS=ON \
    -DPROXYMANAGER_WERROR="$werror" "$@"
  "${launcher[@]}" cmake --build "$folder" -j "$jobs" "${build_options[@]}"
}

# Prints the compiler flags of the package build, without debug symbols and without the paths of that
# build.
packaged_flags() {
  DEB_BUILD_OPTIONS="reproducible=-all" DEB_CFLAGS_APPEND=-g0 DEB_CXXFLAGS_APPEND=-g0 \
    dpkg-buildflags --get "$1"
}

# Builds the content of the packages in $build/test. A test builds the packages later, and takes most
# objects from ccache.
build_release() {
  local macros
  macros=$(packaged_flags CPPFLAGS)
  export CCACHE_BASEDIR=$top CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=locale
  build_tree test -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_COMPILER_LAUNCHER=ccache "-DCMAKE_C_FLAGS=$(packaged_flags CFLAGS) $macros" \
    -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "-DCMAKE_CXX_FLAGS=$(packaged_flags CXXFLAGS) $macros"
}

# run_tests NAME CTEST-OPTIONS...: runs the tests of $build/NAME.
run_tests() {
  local folder=$build/$1
  shift
  step "Testing in $folder"
  "${launcher[@]}" ctest --test-dir "$folder" -j $((4 * jobs)) --output-on-failure --no-tests=error "$@" \
    "${ctest_options[@]}"
}

# with_suppressions TOOL OPTIONS: prints the options, with the tool's suppression file if the tree has
# one.
with_suppressions() {
  local file=$top/tests/support/$1.supp
  if [ -e "$file" ]; then echo "$2:suppressions=$file"; else echo "$2"; fi
}

# The thread sanitizer of older compilers fails if the kernel randomises more than 28 bits of
# addresses, as newer kernels do.
without_random_addresses() {
  local bits
  bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 32)
  if [ "$bits" -gt 28 ] && setarch "$(uname -m)" -R true 2>/dev/null; then
    launcher=(setarch "$(uname -m)" -R)
  fi
}

test_plain() {
  build_release
  export PROXYMANAGER_CMAKE_OPTIONS=-DPROXYMANAGER_WERROR=$werror
  run_tests test
}

# The programs with threads, and the programs that their tests start. In all other programs, the thread
# sanitizer would find nothing.
threaded=(proxymanagerd proxymanager-pac-worker proxymanager-fetch proxymanager-lease proxymanager-relay
  proxymanager-settings proxymanager-client-shared proxymanager_gio proxymanager_libproxy
  proxymanager_soup_get proxymanager_wall_clock proxymanager-fetch-hostile
  proxymanager-fetch-without-handle)
threaded_tests=(bus_tests cache_test client_library_faults_test client_library_parts_test
  client_library_test dbus_handler_tests fetcher_test gio_tests libproxy_test netservice_test
  pac_engine_breach_test pac_engine_calls_tests pac_engine_death_test pac_engine_names_test
  pac_engine_test pac_parser_tests process_test relay_test released_secrets_tests service_tests
  settings_test)
threaded+=("${threaded_tests[@]}")
# The tests on a bus that start no other program.
threaded_tests+=(integration.{bus_loss,bus_policy,contract,fairness,faults,files,glib_programs}
  integration.{hostile_scripts,kill,libproxy,lifecycle,memory,on_demand,pac,planted_files,relay}
  integration.{relay_faults,relay_limits,relay_passwords,relay_program,self_limits,service,settings,settings_sources,settings_trouble,stop}
  integration.{stop_answers,watch,wpad} 'network[.][a-z_]+' stress.bus_abuse)

test_sanitizers() {
  export UBSAN_OPTIONS=print_stacktrace=1
  ASAN_OPTIONS=$(with_suppressions asan strict_string_checks=1:detect_stack_use_after_return=1)
  LSAN_OPTIONS=$(with_suppressions lsan report_objects=1)
  # The daemon's handlers of SIGTERM and SIGHUP may call functions that are not async-signal-safe,
  # because the handlers run only while the main thread sleeps.
  TSAN_OPTIONS=$(with_suppressions tsan \
    halt_on_error=1:second_deadlock_stack=1:report_signal_unsafe=0)
  export ASAN_OPTIONS LSAN_OPTIONS TSAN_OPTIONS

  build_tree address -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPROXYMANAGER_SANITIZER=address
  run_tests address -LE '^slow$'
  without_random_addresses
  build_options=(--target "${threaded[@]}")
  build_tree thread -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPROXYMANAGER_SANITIZER=thread
  run_tests thread -LE '^slow$' -R "^($(IFS='|' && echo "${threaded_tests[*]}"))[.]"
}

# The lines that a killed process has run are not counted, because a process writes its counts at its end.
# A process of another user has no right to write its counts, and prints an error. Two tests would
# take this error for output of the program.
test_coverage() {
  local status=0 report=$build/coverage/report
  build_tree coverage -DCMAKE_BUILD_TYPE=Debug -DPROXYMANAGER_COVERAGE=ON
  find "$build/coverage" -name '*.gcda' -delete
  run_tests coverage -LE '^(slow|checks|packaging)$' \
    -E 'who_may_only_ask_is_told_so|a_bus_that_lets_nobody_in' || status=$?
  step "Coverage"
  mkdir -p "$report"
  gcovr --root "$top" --object-directory "$build/coverage" --exclude 'tests/' --exclude 'build/' \
    --exclude-throw-branches --gcov-ignore-parse-errors --txt "$report/lines.txt" \
    --html-details "$report/index.html" --json-summary "$report/summary.json" "$build/coverage"
  gcovr --root "$top" --object-directory "$build/coverage" --exclude 'tests/' --exclude 'build/' \
    --exclude-throw-branches --branches --txt "$report/branches.txt" "$build/coverage"
  cat "$report/lines.txt" "$report/branches.txt"
  return "$status"
}

test_tidy() {
  build_release
  step "Asking clang-tidy"
  /usr/bin/python3 "$top/tests/checks/clang_says.py" --tidy "$build/test" "$top"
}

# The tests come first, with a worker without seccomp, because the filter would apply to the
# emulator. Then the tree is built for the installation, which compiles only a few files again.
test_cross() {
  local sysroot options folder=$build/$preset left_out=$top/tests/not_emulated.txt
  "$top/packaging/dependencies.sh" --package --cross
  sysroot=$("$top/packaging/cross/sysroot.sh" "$preset")
  options=(--fresh --preset "$preset" "-DPROXYMANAGER_SYSROOT=$sysroot")
  build_tree "$preset" "${options[@]}" -DPROXYMANAGER_TESTS=ON -DPROXYMANAGER_WORKER_SECCOMP=OFF
  step "Not run under the emulator"
  sed '/^#/d; s/\t/: /' "$left_out"
  # Emulated programs use much CPU time and rarely wait, so a time limit of milliseconds may be too
  # short for them.
  run_tests "$preset" -j $((2 * jobs)) --repeat until-pass:3 \
    -E "$(sed '/^#/d; s/\t.*//' "$left_out" | paste -s -d '|')"
  # In this folder, shell scripts that start the emulator have the paths of the programs. The linker would
  # not replace these files, so they are removed.
  find "$folder" -name '*.emulated' -exec sh -c 'for f; do rm -f "$f" "${f%.*}"; done' - {} +
  build_tree "$preset" "${options[@]}" -DPROXYMANAGER_TESTS=OFF
  step "Installing below $folder/installed"
  cmake --install "$folder" --strip --prefix "$folder/installed" >/dev/null
  "$top/packaging/cross/sizes.sh" "$triplet" "$folder/installed"
}

test_recipe() {
  export PROXYMANAGER_RECIPE=1
  build_release
  run_tests test -R '^packaging.TheSourceRecipeWorksInACleanSystem$'
}

test_reproducible() {
  export PROXYMANAGER_REPRODUCIBLE=1
  build_options=(--target proxymanagerctl)
  build_release
  run_tests test -L '^reproducible$'
}

test_programs() {
  step "Unpacking the programs"
  # shellcheck disable=SC2046  # a list of names
  PROXYMANAGER_PROGRAMS=$("$top/tests/support/programs_root.sh" $(cat "$top/tests/programs/programs.txt"))
  export PROXYMANAGER_PROGRAMS
  build_release
  run_tests test -L '^programs$'
}

test_settings_kills() {
  export PROXYMANAGER_SETTINGS_KILLS=200
  build_release
  run_tests test -R '^packaging.TheSettingsServiceFollowsRealNetworkManagers$'
}

test_relay() {
  step "Unpacking the programs"
  # shellcheck disable=SC2046  # a list of names
  PROXYMANAGER_RELAY_PROGRAMS=$("$top/tests/support/programs_root.sh" $(cat "$top/tests/relay/programs.txt"))
  export PROXYMANAGER_RELAY_PROGRAMS
  build_release
  run_tests test -L '^relay$'
}

test_soak() {
  build_release
  step "Soaking for $minutes minutes"
  PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$top/tests/stress/soak.py" "--build=$build/test" \
    "${ctest_options[@]}" "$minutes"
}

test_browsers() {
  build_options=(--target proxymanager_browser_answers proxymanagerctl proxymanager-pac-worker)
  build_release
  step "Looking at the page of pac cover"
  PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$top/tests/browsers/coverage_page.py" "--build=$build/test"
  step "Comparing with browsers"
  PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 "$top/tests/browsers/compare.py" "--build=$build/test" \
    "${ctest_options[@]}"
}

test_fuzz() {
  export UBSAN_OPTIONS=print_stacktrace=1
  LSAN_OPTIONS=$(with_suppressions lsan report_objects=1)
  export LSAN_OPTIONS
  build_options=(--target fuzz_targets)
  build_tree fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPROXYMANAGER_SANITIZER=fuzzer \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
  step "Fuzzing in $build/fuzz"
  "$top/tests/fuzz/run.sh" "$build/fuzz" "$minutes" "$jobs"
}

launcher=()
step "Looking for what is missing on this machine"
# The tests build the Debian packages too.
"$top/packaging/dependencies.sh" "${dependencies[@]}"
"test_$mode"
