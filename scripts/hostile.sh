#!/usr/bin/env bash
# The hostile-input suite (tests/python/test_hostile.py) against the module
# built with AddressSanitizer and UndefinedBehaviorSanitizer, for a number of
# minutes: rounds of freshly seeded cases until the time is up. It stops at the
# first failing round; SCOPE_HOSTILE_SEED=<its seed> reproduces that round.
# Usage: scripts/hostile.sh [minutes, default 10] [cases per test and round, default 2000]
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
need_debs g++ python3-dev python3-venv
use_venv test
minutes=${1:-10}
cases=${2:-2000}
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSCOPE_SANITIZE=ON -DSCOPE_BUILD_TESTS=ON >/dev/null
cmake --build build/asan -j2
report=$(mktemp)
trap 'rm -f "$report"' EXIT
first_seed=${SCOPE_HOSTILE_SEED:-$(date +%s)}
end=$((SECONDS + minutes * 60))
round=0
status=0
while [ "$SECONDS" -lt "$end" ]; do
  seed=$((first_seed + round))
  round=$((round + 1))
  echo "hostile: round $round, SCOPE_HOSTILE_SEED=$seed"
  # Python's own allocator is bypassed so that the sanitizer sees every object.
  if ! LD_PRELOAD="$(g++ -print-file-name=libasan.so):$(g++ -print-file-name=libubsan.so)" \
    ASAN_OPTIONS=detect_leaks=0:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1 PYTHONMALLOC=malloc \
    SCOPE_HOSTILE_SEED=$seed SCOPE_HOSTILE_EXAMPLES=$cases SCOPE_HOSTILE_REPORT="$report" \
    PYTHONPATH=build/asan/python:host python -m pytest tests/python/test_hostile.py -q -p no:cacheprovider -x; then
    echo "hostile: round $round failed; SCOPE_HOSTILE_SEED=$seed SCOPE_HOSTILE_EXAMPLES=$cases reproduces it"
    status=1
    break
  fi
done
echo "hostile: $(awk '{ calls += $1 } END { print calls + 0 }' "$report") calls in $round rounds, ${SECONDS}s"
exit $status
