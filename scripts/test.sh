#!/usr/bin/env bash
# Sets up, builds and runs every test twice: a normal build, then one under
# AddressSanitizer + UndefinedBehaviorSanitizer that halts on the first report; then the
# threaded tests once more under ThreadSanitizer.
# The normal phase also installs into a fresh prefix and builds and runs an outside project
# (examples/consumer) against it, once through CMake's package and once through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
jobs=$(nproc)

# ---- The tree stays formatted with the committed .clang-format
git ls-files '*.h' '*.hpp' '*.cpp' | xargs clang-format --dry-run -Werror

# ---- Phase 1: normal build, tests, install and an outside consumer
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDATASTORE_BUILD_TESTS=ON -DDATASTORE_BUILD_EXAMPLES=ON -DDATASTORE_BUILD_BENCHMARKS=ON
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

prefix="$PWD/build/install"
consumer="$PWD/build/consumer"
rm -rf "$prefix" "$consumer"
cmake --install build --prefix "$prefix"
cmake -S examples/consumer -B "$consumer" -DCMAKE_PREFIX_PATH="$prefix"
cmake --build "$consumer" -j "$jobs"
"$consumer/consumer" "$consumer/event.db"

pcdir=$(dirname "$(find "$prefix" -name datastore.pc -print -quit)")
libdir=$(PKG_CONFIG_PATH="$pcdir" pkg-config --variable=libdir datastore)
# shellcheck disable=SC2046 # the flags are meant to split
g++ -o "$consumer/consumer-pkgconfig" examples/consumer/main.cpp \
    $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs datastore) -Wl,-rpath,"$libdir"
"$consumer/consumer-pkgconfig" "$consumer/event-pkgconfig.db"

"$prefix/bin/datastore" demo --dir "$consumer/stores" > /dev/null
"$prefix/bin/datastore" info --dir "$consumer/stores"

# ---- Phase 2: everything again under the sanitizers
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DDATASTORE_SANITIZE=ON -DDATASTORE_BUILD_TESTS=ON -DDATASTORE_BUILD_BENCHMARKS=OFF
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs"

# ---- Phase 3: the threaded tests under ThreadSanitizer. Only their executables are built (about
# 45 s of building and 1 s of tests on two cores), not the whole tree again.
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DDATASTORE_TSAN=ON -DDATASTORE_BUILD_TESTS=ON \
    -DDATASTORE_BUILD_BENCHMARKS=OFF -DDATASTORE_BUILD_EXAMPLES=OFF -DDATASTORE_BUILD_TOOLS=OFF
cmake --build build-tsan -j "$jobs" \
    --target Foundation_test SQLite3Database_test GlobalMutex_test Containers_test
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir build-tsan --output-on-failure -j "$jobs" \
    -R '^(DataStoreSettingsTest|SQLite3DatabaseTest|GlobalMutexTest|SharedResourceTest)\.'
