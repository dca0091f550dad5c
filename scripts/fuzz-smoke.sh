#!/usr/bin/env bash
# Builds the libFuzzer targets with clang 14 in build-fuzz and gives each fuzz_* program a short
# run (FUZZ_SECONDS, default 20), JOBS of them at a time. A target's seeds in
# tests/fuzz/corpus/<target>/ are read but not written: new inputs go to a scratch corpus under
# build-fuzz. Fails when any target fails.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${FUZZ_SECONDS:-20}
jobs=${JOBS:-2}
build="$root/build-fuzz"

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_C_COMPILER=clang-14 \
      -DTIDEWAY_BUILD_FUZZ=ON -DTIDEWAY_BUILD_TESTS=ON -DTIDEWAY_BUILD_BENCH=OFF >/dev/null
# Only the fuzz programs (one per tests/fuzz/fuzz_*.cpp): the rest of the tree is not meant
# to link with clang's sanitizer runtime.
names=()
for src in "$root"/tests/fuzz/fuzz_*.cpp; do
  [ -e "$src" ] && names+=("$(basename "$src" .cpp)")
done
if [ "${#names[@]}" -eq 0 ]; then
  echo "no fuzz targets under tests/fuzz" >&2
  exit 1
fi
cmake --build "$build" -j"$jobs" --target "${names[@]}"

# Runs one target; its output goes to a log, shown whole only when it fails.
smoke() {
  local name=$1 target scratch seeds log status=0
  target=$(find "$build" -type f -name "$name" -perm -u+x | head -n 1)
  scratch="$build/corpus-work/$name"
  mkdir -p "$scratch"
  local corpora=("$scratch")
  seeds="$root/tests/fuzz/corpus/$name"
  if [ -d "$seeds" ]; then corpora+=("$seeds"); fi
  log="$build/$name-smoke.log"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$target" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$build/$name-" "${corpora[@]}" >"$log" 2>&1 || status=$?
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$log"
    echo "$name failed (exit $status); reproducer under $build/$name-*, log $log" >&2
  fi
  return "$status"
}

# The targets run $jobs at a time; each is given ${seconds}s.
failed=0
pids=(); running=()
for name in "${names[@]}"; do
  while [ "${#pids[@]}" -ge "$jobs" ]; do
    if ! wait "${pids[0]}"; then failed=1; fi
    echo "--- ${running[0]}: ${seconds}s"; grep -E '^(Done|stat::)' "$build/${running[0]}-smoke.log" || true
    pids=("${pids[@]:1}"); running=("${running[@]:1}")
  done
  smoke "$name" &
  pids+=("$!"); running+=("$name")
done
for i in "${!pids[@]}"; do
  if ! wait "${pids[$i]}"; then failed=1; fi
  echo "--- ${running[$i]}: ${seconds}s"; grep -E '^(Done|stat::)' "$build/${running[$i]}-smoke.log" || true
done
if [ "$failed" -ne 0 ]; then
  echo "fuzz smoke failed" >&2
  exit 1
fi
echo "fuzz smoke passed: ${#names[@]} target(s)"
