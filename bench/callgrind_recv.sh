#!/usr/bin/env bash
# Instructions per received byte of the receive path, counted by callgrind over a fixed
# workload (the capture stream, four times, reads of random size up to 2048 from a fixed
# seed). Only the receive path is counted, not loading the captures.
# Usage: bench/callgrind_recv.sh [build dir, default build/release]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
if [ ! -d "$build" ]; then
  cmake --preset release >/dev/null
fi
cmake --build "$build" -j2 --target recv_workload >/dev/null

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for mode in log nolog; do
  valgrind --tool=callgrind --callgrind-out-file="$out/$mode.out" \
    --toggle-collect='*receive_path_workload*' \
    "$build/bench/recv_workload" "$mode" >"$out/$mode.txt" 2>"$out/$mode.err" || {
      cat "$out/$mode.err" "$out/$mode.txt" >&2
      exit 1
    }
  bytes=$(awk '/^bytes/ {print $2}' "$out/$mode.txt")
  instructions=$(awk '/^(summary|totals):/ {print $2; exit}' "$out/$mode.out")
  case $mode in
    log) label="debug log as shipped" ;;
    nolog) label="debug log off" ;;
  esac
  awk -v i="$instructions" -v b="$bytes" -v l="$label" \
    'BEGIN { printf "receive path, %-21s %6.1f instructions per byte (%d bytes)\n", l ":", i / b, b }'
done
