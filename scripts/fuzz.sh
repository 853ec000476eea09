#!/usr/bin/env bash
# Builds the fuzz targets with clang (ASan + UBSan + libFuzzer) and runs each from its
# committed corpus for a bounded time. A crash, sanitizer report, timeout or leak fails the
# run; the reproducer is left in build-fuzz/findings/<target>/ and named in the output. Commit
# it under fuzz/corpus/<target>/ with the fix: every test build replays it from then on.
#
#   scripts/fuzz.sh                 every target, FUZZ_SECONDS (default 40) each
#   scripts/fuzz.sh storefile 600   one target, ten minutes
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${FUZZ_SECONDS:-40}
if [ $# -ge 2 ]; then seconds=$2; fi
build=build-fuzz
launcher=()
if command -v ccache > /dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi

CC=clang CXX=clang++ cmake -S . -B "$build" "${launcher[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DDATASTORE_FUZZ=ON -DBUILD_SHARED_LIBS=OFF -DDATASTORE_BUILD_TESTS=OFF \
    -DDATASTORE_BUILD_EXAMPLES=OFF -DDATASTORE_BUILD_DOCS=OFF -DDATASTORE_INSTALL=OFF > /dev/null
cmake --build "$build" -j "$(nproc)" --target fuzz

targets=(datetime settings string arguments output storefile)
if [ $# -ge 1 ]; then targets=("$1"); fi

status=0
for target in "${targets[@]}"; do
    findings="$build/findings/$target"
    work="$build/corpus/$target"  # new inputs land here; the committed corpus stays as it is
    rm -rf "$findings"
    mkdir -p "$findings" "$work"
    dict=()
    if [ -f "fuzz/dict/$target.dict" ]; then dict=(-dict="fuzz/dict/$target.dict"); fi
    # Texts stay short, so that a long reproducer in the corpus (replayed whole by ctest) does
    # not slow every run down; store files need room for a few pages.
    maxLength=4096
    if [ "$target" = storefile ]; then maxLength=65536; fi
    echo "fuzz: $target for ${seconds}s"
    log="$build/$target.log"
    if ! ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 \
        UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        "$build/fuzz/fuzz_$target" "${dict[@]}" -max_total_time="$seconds" -timeout=10 \
        -max_len="$maxLength" \
        -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$findings/" \
        "$work" "fuzz/corpus/$target" > "$log" 2>&1; then
        tail -n 60 "$log"
        echo "fuzz: $target FAILED; reproducer: $(ls "$findings"/* 2>/dev/null | tr '\n' ' ')"
        status=1
    fi
    # The figures: executions, coverage and features reached.
    grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::peak_rss_mb)' "$log" || true
done
exit $status
