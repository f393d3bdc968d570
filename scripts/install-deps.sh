#!/usr/bin/env bash
# Installs the Debian packages this project builds and tests with, and the
# ones named as arguments (what the packaging scripts need besides).
# Idempotent: packages already present are skipped; nothing is done when all are there.
#
# usage: scripts/install-deps.sh [PACKAGE...]
set -euo pipefail

packages=(
  # toolchain
  g++ cmake make pkg-config python3
  # text, regular expressions, calendar
  libicu-dev
  # wire format, JSON, XML
  libplist-dev nlohmann-json3-dev libpugixml-dev
  # PDF text (the MuPDF package declares none of its own dependencies)
  libmupdf-dev libmujs-dev libgumbo-dev libopenjp2-7-dev libjbig2dec0-dev
  libjpeg-dev libfreetype-dev libharfbuzz-dev zlib1g-dev
  # tests and benchmarks
  libgtest-dev libgmock-dev libbenchmark-dev
  # sanitizer and fuzzing build
  clang libclang-rt-14-dev
  # the man pages' check
  man-db
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}" >&2
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
