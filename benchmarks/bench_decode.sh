#!/usr/bin/env bash
# tessel-cli decode's speed and memory on a candump log of FRAMES frames of a busy CANopen bus
# (SDO transfers, PDOs, heartbeats, SYNC, EMCY in turn): frames a second, and the largest
# resident memory, which must not grow with the file.
# Usage: benchmarks/bench_decode.sh [FRAMES] (default 1000000), from the repository, after a build.
set -euo pipefail
frames=${1:-1000000}
dir=$(mktemp -d /tmp/tessel-decode-XXXXXX)
trap 'rm -rf "$dir"' EXIT
awk -v n="$frames" 'BEGIN { us = 1795400000000000
  split("080#|181#3702A0860100|601#4018100100000000|581#43181001A1030000|701#05|081#1032050000000000|201#0F00|602#0000000000000000|582#00514432303020", f, "|")
  for (i = 0; i < n; ++i) { us += 150; printf "(%d.%06d) can0 %s\n", int(us / 1000000), us % 1000000, f[i % 9 + 1] } }' \
  > "$dir/bus.log"
bytes=$(stat -c %s "$dir/bus.log")
start=$(date +%s.%N)
/usr/bin/time -f "%M" -o "$dir/rss" ./build/bin/tessel-cli decode "$dir/bus.log" > /dev/null
end=$(date +%s.%N)
awk -v n="$frames" -v s="$start" -v e="$end" -v b="$bytes" -v rss="$(cat "$dir/rss")" 'BEGIN {
  printf "%d frames (%.0f MB) decoded in %.2f s: %.0f frames/s; largest resident memory %.1f MB\n",
    n, b / 1e6, e - s, n / (e - s), rss / 1024 }'
