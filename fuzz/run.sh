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
for t in $targets; do
  mkdir -p "$build/corpus/$t"
  seeds=()
  [ -d "fuzz/corpus/$t" ] && seeds=("fuzz/corpus/$t")
  echo "--- $t: ${seconds} s"
  "$build/fuzz/$t" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$build/" "$build/corpus/$t" "${seeds[@]}" 2>&1 | tail -n 12
  [ "${PIPESTATUS[0]}" -eq 0 ]
done
