#!/usr/bin/env bash
# The whole test suite once more under AddressSanitizer and
# UndefinedBehaviorSanitizer, then every fuzz target for SECONDS (default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
scripts/install-deps.sh
scripts/configure-hardening.sh
cmake --build build-hardening -j2
ASAN_OPTIONS=detect_leaks=1 ctest --test-dir build-hardening --output-on-failure -j2
scripts/fuzz.sh "$seconds"
