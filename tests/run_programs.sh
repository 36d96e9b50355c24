#!/usr/bin/env bash
# Runs test programs whole, each in one process, JOBS at a time:
#   bash tests/run_programs.sh BUILD_DIR [--all | PROGRAM ...]
# Without programs it runs every test program of BUILD_DIR/tests but the
# *_slow ones, which wait out the library's real time-outs; --all runs those
# too. ctest starts a process per test case; under a sanitizer each
# start and exit costs about 0.1 s (the runtime's set-up and the leak scan), so
# a sanitizer build's tests run here in a third of ctest's time. Running the
# cases of a program one after another in one process also checks that a case
# leaves nothing behind that breaks the next one.
# Environment: JOBS (default 2), TIMEOUT seconds a program (default 600).
set -uo pipefail
build=${1:?usage: run_programs.sh BUILD_DIR [--all | PROGRAM ...]}
shift
slow='_slow$'
if [ "${1:-}" = --all ]; then
  slow='^$'
  shift
fi
jobs=${JOBS:-2}
limit=${TIMEOUT:-600}
if [ $# -gt 0 ]; then
  programs=("$@")
else
  # The slow programs first, so that they do not end the run alone.
  mapfile -t programs < <(cd "$build/tests" && ls | grep -E '^test_[a-z0-9_]+$' | grep -v "$slow" |
    awk '{ print (/_slow$/ ? 0 : 1) " " $0 }' | sort | cut -d' ' -f2)
fi
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT
export build logs limit
run_one() {
  local start=$SECONDS
  if timeout "$limit" "$build/tests/$1" --gtest_brief=1 >"$logs/$1.log" 2>&1; then
    echo "passed $1 ($(( SECONDS - start )) s)"
  else
    echo "FAILED $1 ($(( SECONDS - start )) s)" | tee "$logs/$1.failed"
  fi
}
export -f run_one
printf '%s\n' "${programs[@]}" | xargs -P "$jobs" -I{} bash -c 'run_one {}'
failed=("$logs"/*.failed)
if [ -e "${failed[0]}" ]; then
  for f in "${failed[@]}"; do
    name=$(basename "$f" .failed)
    echo "--- $name"
    tail -n 60 "$logs/$name.log"
  done
  echo "${#failed[@]} of ${#programs[@]} test programs failed"
  exit 1
fi
echo "all ${#programs[@]} test programs passed"
