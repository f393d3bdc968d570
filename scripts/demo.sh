#!/usr/bin/env bash
# Installs what is missing, builds the command line and the service (what the
# README's commands use), and analyses the bundled sample receipt: first the
# one-line summary, then the whole result as JSON, then once more through the
# service.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build >/dev/null
cmake --build build -j2 --target lmreceipt lmreceipt-service
./build/lmreceipt analyze --format summary --tax 19 --tax 7 testdata/sample-receipt.pdf
./build/lmreceipt analyze --tax 19 --tax 7 testdata/sample-receipt.pdf
./build/lmreceipt call --format summary --tax 19 --tax 7 testdata/sample-receipt.pdf
