#!/usr/bin/env bash
# Sets up, builds and runs every test twice: a normal build, then one under
# AddressSanitizer + UndefinedBehaviorSanitizer that halts on the first report.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDATASTORE_BUILD_TESTS=ON -DDATASTORE_BUILD_EXAMPLES=ON -DDATASTORE_BUILD_BENCHMARKS=ON
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DDATASTORE_SANITIZE=ON -DDATASTORE_BUILD_TESTS=ON -DDATASTORE_BUILD_BENCHMARKS=OFF
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs"
