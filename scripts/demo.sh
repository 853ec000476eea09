#!/usr/bin/env bash
# Sets up, builds the datastore tool and runs the main job on the default store location:
# it records a diagnostics day into all four stores, then shows that day's alerts.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$(nproc)" --target datastore
build/tools/datastore/datastore demo
build/tools/datastore/datastore alerts --limit 3
