#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DLM_WERROR=ON >/dev/null
cmake --build build -j2
ctest --test-dir build --output-on-failure -j2
