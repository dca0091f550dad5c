#!/usr/bin/env bash
# Builds the libFuzzer targets with clang 14 in build-fuzz and gives each fuzz_* program a short
# run (FUZZ_SECONDS, default 20). A target's seeds in tests/fuzz/corpus/<target>/ are read but
# not written: new inputs go to a scratch corpus under build-fuzz. Fails on the first crash.
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

for name in "${names[@]}"; do
  target=$(find "$build" -type f -name "$name" -perm -u+x | head -n 1)
  scratch="$build/corpus-work/$name"
  mkdir -p "$scratch"
  corpora=("$scratch")
  seeds="$root/tests/fuzz/corpus/$name"
  if [ -d "$seeds" ]; then corpora+=("$seeds"); fi
  echo "--- $name: ${seconds}s"
  log="$build/$name-smoke.log"
  status=0
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$target" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$build/$name-" "${corpora[@]}" >"$log" 2>&1 || status=$?
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$log"
    echo "$name failed (exit $status); reproducer under $build/$name-*, log $log" >&2
    exit "$status"
  fi
  grep -E '^(Done|stat::)' "$log"
done
echo "fuzz smoke passed: ${#names[@]} target(s)"
