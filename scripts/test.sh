#!/usr/bin/env bash
# Sets up, builds and runs every test twice: a normal build, then one under
# AddressSanitizer + UndefinedBehaviorSanitizer that halts on the first report; then the
# threaded tests once more under ThreadSanitizer; last, every fuzz target explores from its
# corpus for a bounded time (scripts/fuzz.sh).
# The normal phase also installs into a fresh prefix and builds and runs an outside project
# (examples/consumer) against it, through CMake's package, through pkg-config and from the build
# tree, and builds the API reference. Then the Debian packages are built, unpacked into a scratch
# root and used, and a static build is installed and consumed.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
jobs=$(nproc)

# ---- The tree stays formatted with the committed .clang-format
git ls-files '*.h' '*.hpp' '*.cpp' | xargs clang-format --dry-run -Werror

# ---- Phase 1: normal build, tests, install and an outside consumer
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDATASTORE_BUILD_TESTS=ON -DDATASTORE_BUILD_EXAMPLES=ON -DDATASTORE_BUILD_BENCHMARKS=ON
# Every function of the libraries and the tool fits on a screen (60 lines).
scripts/function-size.sh build
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
# C++17 is a minimum: no -std flag that would pull a newer consumer back.
if PKG_CONFIG_PATH="$pcdir" pkg-config --cflags datastore | grep -e '-std='; then exit 1; fi

"$prefix/bin/datastore" demo --dir "$consumer/stores" > /dev/null
"$prefix/bin/datastore" info --dir "$consumer/stores"

cmake -S examples/consumer -B "$consumer-tree" -DDataStore_DIR="$PWD/build"
cmake --build "$consumer-tree" -j "$jobs"
"$consumer-tree/consumer" "$consumer/event-tree.db"

cmake --build build --target docs

# Embedded with add_subdirectory: only the libraries (configuring is the check)
cmake -S tests/embed -B build/embed > /dev/null

# ---- Debian packages: built from a Release build for /usr, unpacked into a scratch root
deb=build-deb
cmake -S . -B "$deb" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DDATASTORE_BUILD_TESTS=OFF -DDATASTORE_BUILD_EXAMPLES=OFF -DDATASTORE_BUILD_DOCS=OFF
cmake --build "$deb" -j "$jobs"
rm -f "$deb"/*.deb
(cd "$deb" && cpack -G DEB)
root="$PWD/$deb/root"
rm -rf "$root" "$deb/consumer"
for package in "$deb"/*.deb; do
    dpkg-deb --info "$package" | grep -E '^ (Package|Depends):'
    dpkg-deb -x "$package" "$root"
done
"$root/usr/bin/datastore" demo --dir "$root/stores" > /dev/null
"$root/usr/bin/datastore" alerts --dir "$root/stores" --limit 1
test -f "$root/usr/share/man/man1/datastore.1.gz"
test -f "$root/usr/share/bash-completion/completions/datastore"
test -f "$root/usr/share/zsh/site-functions/_datastore"
# Stripped: no symbol table left in the tool or the libraries.
if file "$root/usr/bin/datastore" "$root"/usr/lib/*/lib*.so.* | grep 'not stripped'; then exit 1; fi
cmake -S examples/consumer -B "$deb/consumer" -DCMAKE_PREFIX_PATH="$root/usr"
cmake --build "$deb/consumer" -j "$jobs"
debpc=$(dirname "$(find "$root" -name datastore.pc -print -quit)")
debLibdir=$(PKG_CONFIG_PATH="$debpc" pkg-config --variable=libdir datastore)
LD_LIBRARY_PATH=$debLibdir "$deb/consumer/consumer" "$deb/consumer/event.db"
# shellcheck disable=SC2046 # the flags are meant to split
g++ -std=c++20 -o "$deb/consumer/consumer-pkgconfig" examples/consumer/main.cpp \
    $(PKG_CONFIG_PATH="$debpc" pkg-config --cflags --libs datastore)
LD_LIBRARY_PATH=$debLibdir "$deb/consumer/consumer-pkgconfig" "$deb/consumer/event-pkgconfig.db"

# ---- Static archives: installed, then a consumer through find_package carries no .so of ours
static=build-static
rm -rf "$static/install" "$static/consumer"
cmake -S . -B "$static" -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=OFF \
    -DDATASTORE_BUILD_TESTS=OFF -DDATASTORE_BUILD_EXAMPLES=OFF -DDATASTORE_BUILD_TOOLS=OFF \
    -DDATASTORE_BUILD_DOCS=OFF
cmake --build "$static" -j "$jobs"
cmake --install "$static" --prefix "$static/install"
cmake -S examples/consumer -B "$static/consumer" -DCMAKE_PREFIX_PATH="$PWD/$static/install"
cmake --build "$static/consumer" -j "$jobs"
if ldd "$static/consumer/consumer" | grep -E 'lib(DataStore|Common)'; then exit 1; fi
"$static/consumer/consumer" "$static/consumer/event.db"

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

# ---- Phase 4: the fuzz targets, built with clang (libFuzzer, ASan + UBSan), each run from its
# committed corpus for FUZZ_SECONDS (40 by default; about 6 minutes in all on two cores, the
# build included). A finding fails the run and names its reproducer under build-fuzz/findings/.
scripts/fuzz.sh
