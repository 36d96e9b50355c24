#!/usr/bin/env bash
# Builds every fuzz target with clang and runs each for a bounded time.
#   bash fuzz/run.sh [BUILD_DIR] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-fuzz}
seconds=${2:-30}
# A build directory already configured with the fuzz targets (CI's sanitizer
# build) is used as it is; otherwise it is configured here: -O1 with line
# tables only, the usual optimisation for fuzzing, and quicker to compile than
# the default build type's -O2 -g.
if ! grep -q '^KAVO_BUILD_FUZZ:BOOL=ON' "$build/CMakeCache.txt" 2>/dev/null; then
  fuzz_flags="-O1 -gline-tables-only -DNDEBUG"
  cmake -S . -B "$build" -G Ninja -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_FLAGS_RELWITHDEBINFO="$fuzz_flags" \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$fuzz_flags" \
    -DKAVO_BUILD_FUZZ=ON -DKAVO_BUILD_TESTS=OFF -DKAVO_BUILD_BENCH=OFF -DKAVO_BUILD_EXAMPLES=OFF
fi
targets=$(cd fuzz && ls fuzz_*.cpp | sed 's/\.cpp$//')
ninja -C "$build" $targets
# Each target is one process on one processor: JOBS (default 2) run at once.
run_target() {
  local t=$1 seeds=()
  mkdir -p "$build/corpus/$t"
  [ -d "fuzz/corpus/$t" ] && seeds=("fuzz/corpus/$t")
  "$build/fuzz/$t" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$build/" "$build/corpus/$t" "${seeds[@]}" >"$build/$t.log" 2>&1
  local status=$?
  { echo "--- $t: ${seconds} s"; tail -n 12 "$build/$t.log"; } > "$build/$t.summary"
  return $status
}
export -f run_target
export build seconds
status=0
printf '%s\n' $targets | xargs -P "${JOBS:-2}" -I{} bash -c 'run_target {}' || status=$?
for t in $targets; do cat "$build/$t.summary"; done
exit $status
