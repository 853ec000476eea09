#!/usr/bin/env bash
# Sets up, builds and runs the main job on the default store location.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDATASTORE_BUILD_EXAMPLES=ON
cmake --build build -j "$(nproc)" --target hello_datastore
build/examples/hello_datastore
