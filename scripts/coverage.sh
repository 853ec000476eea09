#!/usr/bin/env bash
# Builds the project instrumented for gcov, runs the whole test suite and prints line and branch
# coverage for libCommon/src, libDataStore/src and tools/datastore, each on its own (gcovr).
# Branches the compiler adds for exception unwinding are left out: they say nothing of the code.
# Threads of a test race on the counters (a count may come out negative): gcovr skips those.
# Usage: scripts/coverage.sh [build-dir]   (default build-coverage; an existing one is reused)
# Set COVERAGE_DETAILS=1 to list every file with its uncovered lines.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${1:-build-coverage}
jobs=${JOBS:-2}

launcher=()
if command -v ccache >/dev/null; then
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DDATASTORE_BUILD_TESTS=ON \
    -DDATASTORE_COVERAGE=ON "${launcher[@]}" >/dev/null
cmake --build "$build" -j "$jobs"
# Counters of an earlier run would add up with this one.
find "$build" -name '*.gcda' -delete
# One test runs the tool as an unprivileged user and wants its standard error empty; that user
# cannot write the counters, and gcov says so on standard error. It is left out here.
ctest --test-dir "$build" -j "$jobs" --output-on-failure \
    -E 'InspectionOfAReadOnlyCopyChangesNoByteAndNeedsNoLock' || echo "coverage: some tests failed"

summary=$build/coverage-summary.json
gcovr --root "$root" \
    --filter "$root/libCommon/src/" --filter "$root/libDataStore/src/" \
    --filter "$root/tools/datastore/" \
    --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors \
    --json-summary "$summary" --json-summary-pretty "$build" \
    ${COVERAGE_DETAILS:+--txt "$build/coverage.txt"}

python3 - "$summary" <<'PY'
import json, sys
files = json.load(open(sys.argv[1]))["files"]
dirs = ["libCommon/src", "libDataStore/src", "tools/datastore"]
print(f"{'directory':<20}{'lines':>22}{'branches':>22}")
for d in dirs:
    mine = [f for f in files if f["filename"].startswith(d + "/")]
    t = {k: sum(f[k] for f in mine) for k in ("line_total", "line_covered", "branch_total", "branch_covered")}
    def pct(c, n):
        return f"{100.0 * c / n:6.2f}% ({c}/{n})" if n else "   n/a"
    print(f"{d:<20}{pct(t['line_covered'], t['line_total']):>22}"
          f"{pct(t['branch_covered'], t['branch_total']):>22}")
PY
if [ -n "${COVERAGE_DETAILS:-}" ]; then
    echo "per file, with uncovered lines: $build/coverage.txt"
fi
