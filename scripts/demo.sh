#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job on the bundled sample.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j2 --target lm_smoke
./build/lm_smoke testdata/sample-receipt.txt
