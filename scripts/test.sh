#!/usr/bin/env bash
# Runs every test: installs what is missing, then builds and runs the suite three times
# (plain, AddressSanitizer+UndefinedBehaviorSanitizer, ThreadSanitizer for the threaded suites),
# checks the module's exported symbols, compiles the whole tree with clang's thread-safety
# analysis (the compile is the check), and gives each fuzz target a short smoke run.
# The browser test (CTest browser_web: the web face in headless Chromium against the simulator)
# runs in the plain leg and, with the sanitized tideway-host and module, in the ASan+UBSan leg.
# The ThreadSanitizer leg runs only the suites labelled "threads"; the browser test is not one:
# most of its time goes to Chromium and Node, which TSan cannot see into.
# The system-log test (CTest host_syslog: a conversation's records in a scratch rsyslogd, in a
# private mount namespace) runs in the plain leg only.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${JOBS:-$(nproc)}

"$root/scripts/install-deps.sh"
# The suites that start a simulator on the product's IPC port hold its lock (with_port_lock), so
# that this script can run beside another user of the port on the same machine.
. "$root/scripts/lib/port-lock.sh"

# Each step's wall time is printed when the next begins, and all of them at the end.
started=$SECONDS; stage=""; stage_start=$SECONDS; timings=()
close_stage() {
  if [ -n "$stage" ]; then timings+=("$(printf '%5ds  %s' $((SECONDS - stage_start)) "$stage")"); fi
}
step() {
  close_stage
  stage="$*"; stage_start=$SECONDS
  printf '\n=== %s ===\n' "$*"
}

step "plain build"
cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j"$jobs"
with_port_lock ctest --test-dir "$root/build" --output-on-failure -j"$jobs"
echo "the browser test's screenshot: $root/build/tests/browser/web-host.png"

step "exported symbols of libtidewayapi.so"
"$root/scripts/check-exports.sh" "$root/build/src/libtidewayapi.so"

# Installs the plain build and builds the Debian package (in build-package/, with a scratch
# pass phrase), and runs a host compiled outside the tree against each; see the script.
step "install, package, and a host built outside the tree"
with_port_lock "$root/scripts/check-install.sh" "$root/build"

step "clang thread-safety analysis (lock annotations)"
cmake -S "$root" -B "$root/build-tsa" -DCMAKE_BUILD_TYPE=Debug \
      -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_C_COMPILER=clang-14 \
      -DTIDEWAY_THREAD_SAFETY=ON -DTIDEWAY_BUILD_BENCH=OFF >/dev/null
# The product's code (module, IPC library, tools); the tests are not part of the analysis.
cmake --build "$root/build-tsa" -j"$jobs" --target tidewayapi tideway-host tideway-agent-sim tideway-obfuscate

step "AddressSanitizer + UndefinedBehaviorSanitizer"
cmake -S "$root" -B "$root/build-asan" -DCMAKE_BUILD_TYPE=Debug \
      -DTIDEWAY_SANITIZE=address,undefined -DTIDEWAY_BUILD_BENCH=OFF >/dev/null
cmake --build "$root/build-asan" -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  LSAN_OPTIONS=suppressions="$root/tests/lsan.supp" \
  with_port_lock ctest --test-dir "$root/build-asan" --output-on-failure -j"$jobs"

step "ThreadSanitizer (threaded suites)"
cmake -S "$root" -B "$root/build-tsan" -DCMAKE_BUILD_TYPE=Debug \
      -DTIDEWAY_SANITIZE=thread -DTIDEWAY_BUILD_BENCH=OFF >/dev/null
# Only what the suites labelled "threads" run.
cmake --build "$root/build-tsan" -j"$jobs" --target tideway_thread_tests
TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:suppressions=$root/tests/tsan.supp" \
  ctest --test-dir "$root/build-tsan" --output-on-failure -j"$jobs" -L threads

if [ -x "$root/scripts/fuzz-smoke.sh" ]; then
  step "fuzz smoke"
  "$root/scripts/fuzz-smoke.sh"
fi

close_stage; stage=""
printf '\n=== time by step ===\n'
printf '%s\n' "${timings[@]}"
printf '%5ds  total, from the end of the package installation\n' $((SECONDS - started))
step "all tests passed"
