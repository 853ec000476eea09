#!/usr/bin/env bash
# Fails when a function of the libraries or the tool runs over 60 lines: each should fit on a
# screen. clang-tidy's readability-function-size, on every source of libCommon/src,
# libDataStore/src and tools/, with the build's compile commands.
#   scripts/function-size.sh [build-dir]   (default: build; needs compile_commands.json)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
if [ ! -f "$build/compile_commands.json" ]; then
    echo "function-size: no $build/compile_commands.json (configure with CMake first)" >&2
    exit 2
fi
config='{Checks: "-*,readability-function-size", CheckOptions: [{key: readability-function-size.LineThreshold, value: 60}]}'
files=$(git ls-files 'libCommon/src/*.cpp' 'libDataStore/src/*.cpp' 'tools/*.cpp')
# Only this project's headers report: a long function in a system header is not ours.
# shellcheck disable=SC2086 # one argument per file
out=$(printf '%s\n' $files | xargs -P "${JOBS:-2}" -n 4 clang-tidy -p "$build" --quiet \
    --config="$config" --header-filter='(libCommon|libDataStore|tools)/' 2>/dev/null || true)
found=$(printf '%s\n' "$out" | grep -E 'warning: function .* exceeds recommended size' |
    sort -u || true)
if [ -n "$found" ]; then
    printf '%s\n' "$found"
    echo "function-size: $(printf '%s\n' "$found" | wc -l) function(s) over 60 lines" >&2
    exit 1
fi
echo "function-size: every function of $(printf '%s\n' $files | wc -l) files fits in 60 lines"
