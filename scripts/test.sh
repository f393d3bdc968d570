#!/usr/bin/env bash
# Installs what is missing, builds everything and runs every test; then runs
# the whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer
# and each fuzz target for a minute (scripts/hardening.sh), and builds,
# installs, tests and removes the Debian packages (scripts/package-test.sh).
#
# usage: scripts/test.sh [--quick]     --quick: the first pass only
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -DLM_WERROR=ON >/dev/null
cmake --build build -j2
ctest --test-dir build --output-on-failure -j2
if [ "${1:-}" != "--quick" ]; then
  scripts/hardening.sh 60
  scripts/package-test.sh
fi
