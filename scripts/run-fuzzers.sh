#!/usr/bin/env bash
# Runs every fuzz target found in <build dir>/fuzz for <seconds> each, starting from its seed
# corpus. A crash, leak, timeout or sanitizer report fails the run.
set -euo pipefail
build="$1"
seconds="${2:-30}"
root="$(cd "$(dirname "$0")/.." && pwd)"
status=0
for target in "$build"/fuzz/fuzz_*; do
  [ -x "$target" ] || continue
  name=$(basename "$target")
  seeds="$root/fuzz/corpus/${name#fuzz_}"
  work=$(mktemp -d)
  echo "--- $name (${seconds}s)"
  if ! "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
       -print_final_stats=1 -artifact_prefix="$work/" "$work" "$seeds"; then
    echo "FAILED: $name (artifacts in $work)"
    status=1
  fi
done
exit $status
