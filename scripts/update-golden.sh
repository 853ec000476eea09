#!/usr/bin/env bash
# Rewrites the golden files under tests/golden/ from what the built library does now, for a
# deliberate change of a statement, message or schema text. Review `git diff tests/golden`
# line by line before committing: every changed line is a change other programs will see.
# Usage: scripts/update-golden.sh [build-dir] [ctest -R regex]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
cmake --build "$build" -j "$(nproc)"
DATASTORE_UPDATE_GOLDEN=1 ctest --test-dir "$build" -R "${2:-Catalogue}" --output-on-failure
git status --short tests/golden
