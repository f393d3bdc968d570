#!/usr/bin/env bash
# Runs the fuzz targets side by side, each for SECONDS (default 60), from the
# committed seeds, and prints executions, coverage and crashes per target.
#
# usage: scripts/fuzz.sh [SECONDS] [TARGET...]      targets: pdf text archive request einvoice
#
# Builds the targets first (clang with AddressSanitizer and
# UndefinedBehaviorSanitizer, in build-hardening/). Crashing inputs are kept
# in build-hardening/fuzz-artifacts/. Exits 1 when any target found a crash.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(pdf text archive request einvoice)

scripts/install-deps.sh
scripts/configure-hardening.sh
cmake --build build-hardening -j2 $(printf -- '--target lm_fuzz_%s ' "${targets[@]}")

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
artifacts="build-hardening/fuzz-artifacts"
mkdir -p "$artifacts"

pids=()
for t in "${targets[@]}"; do
  mkdir -p "$work/$t" "$work/art-$t"
  if [ -d "fuzz/corpus/$t" ]; then cp -r "fuzz/corpus/$t/." "$work/$t/"; fi
  # The e-invoice reader starts from the reader's own test files.
  if [ "$t" = einvoice ]; then cp testdata/einvoice/*.xml "$work/$t/"; fi
  "build-hardening/fuzz/lm_fuzz_$t" "$work/$t" -max_total_time="$seconds" -timeout=30 \
    -rss_limit_mb=4096 -max_len=1048576 -print_final_stats=1 \
    -artifact_prefix="$work/art-$t/" >"$work/$t.log" 2>&1 &
  pids+=($!)
done

failed=0
printf '%-8s %12s %10s %10s %8s\n' target executions coverage features crashes
for i in "${!targets[@]}"; do
  t="${targets[$i]}"
  status=0
  wait "${pids[$i]}" || status=$?
  log="$work/$t.log"
  crashes=$(ls "$work/art-$t" | wc -l)
  cp -r "$work/art-$t/." "$artifacts/" 2>/dev/null || true
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' || true)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*' || true)
  ft=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | grep -o '[0-9]*' || true)
  printf '%-8s %12s %10s %10s %8s\n' "$t" "${runs:-0}" "${cov:-0}" "${ft:-0}" "$crashes"
  if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
    failed=1
    echo "--- lm_fuzz_$t exited with $status; the end of its log:" >&2
    tail -40 "$log" >&2
  fi
done
exit "$failed"
