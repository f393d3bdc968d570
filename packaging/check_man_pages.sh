#!/usr/bin/env bash
# Checks the man pages: they render without a warning, carry the version
# `lmreceipt --version` prints, and lmreceipt(1) names exactly the options
# and commands `lmreceipt --help` names.
#
# usage: packaging/check_man_pages.sh PATH/lmreceipt
set -euo pipefail
cd "$(dirname "$0")"
lmreceipt="$1"

status=0
for page in lmreceipt.1 lmreceipt-service.8; do
  warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 \
             man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null || true)
  if [ -n "$warnings" ]; then
    echo "$page renders with warnings:" >&2
    echo "$warnings" >&2
    status=1
  fi
done

version=$("$lmreceipt" --version)
for page in lmreceipt.1 lmreceipt-service.8; do
  if ! grep -q "^\.TH .* \"$version\" " "$page"; then
    echo "$page does not carry the version \"$version\" in its .TH line" >&2
    status=1
  fi
done

# Long options and commands as the help text and the page spell them.
from_help=$("$lmreceipt" --help | grep -oE -- '--[a-z][a-z-]*|lmreceipt (analyze|call)' | sort -u)
from_page=$(sed 's/\\-/-/g' lmreceipt.1 | grep -oE -- '--[a-z][a-z-]*|lmreceipt (analyze|call)' |
            sort -u)
if [ "$from_help" != "$from_page" ]; then
  echo "lmreceipt --help and lmreceipt.1 name different options (< help, > page):" >&2
  diff <(echo "$from_help") <(echo "$from_page") >&2 || true
  status=1
fi
exit "$status"
