#!/usr/bin/env bash
# Configures build-hardening/: everything built by clang with
# AddressSanitizer and UndefinedBehaviorSanitizer, plus the fuzz targets.
set -euo pipefail
cd "$(dirname "$0")/.."
CC=clang CXX=clang++ cmake -S . -B build-hardening -DLM_SANITIZE=ON -DLM_FUZZ=ON \
  -DLM_BUILD_BENCH=OFF -DLM_WERROR=ON >/dev/null
