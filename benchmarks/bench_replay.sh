#!/usr/bin/env bash
# Replay's timing as a user meets it: tessel-cli replays a candump log of FRAMES frames (spaced
# 0.6 to 1.6 ms apart) on the paced bus of a server started here, while tessel-cli dump records
# the bus; each spacing is compared with the recording, from the server's time stamps.
# Usage: benchmarks/bench_replay.sh [FRAMES] (default 10000), from the repository, after a build.
set -euo pipefail
frames=${1:-10000}
dir=$(mktemp -d /tmp/tessel-replay-XXXXXX)
trap 'rm -rf "$dir"' EXIT
socket="$dir/qorcalib"
# Settings of its own: a remote server named in the user's settings is not the one measured.
export XDG_CONFIG_HOME="$dir/config"
./build/bin/qorcalib-server --socket "$socket" --idle-exit 5 >/dev/null 2>&1 &
cli=(./build/bin/tessel-cli --socket "$socket")
for _ in $(seq 50); do "${cli[@]}" sdo read 1,1000,0 >/dev/null 2>&1 && break; sleep 0.1; done
awk -v n="$frames" 'BEGIN { us = 1795400000000000
  for (i = 0; i < n; ++i) { us += 600 + (i * 7919) % 1000
    printf "(%d.%06d) can0 5%02d#%04X\n", int(us / 1000000), us % 1000000, i % 100, i % 65536 } }' \
  > "$dir/recorded.log"
seconds=$(awk -v n="$frames" 'BEGIN { printf "%d", n * 1.1 / 1000 + 3 }')
"${cli[@]}" dump --seconds "$seconds" --filter 500:700,0FF:7FF > "$dir/dump.log" &
dump=$!
# The replay starts once the dump records: it shows a marker frame.
until grep -q '0FF#' "$dir/dump.log"; do "${cli[@]}" send 0FF# >/dev/null; sleep 0.05; done
start=$(date +%s%N)
"${cli[@]}" replay "$dir/recorded.log" >/dev/null
took=$(( ($(date +%s%N) - start) / 1000000 ))
wait "$dump"
# Both logs' times in microseconds, the replayed frames (COB-IDs 5xx) only.
micros() { sed -n 's/^(\([0-9]*\)\.\([0-9]*\)) can0 5[0-9A-F][0-9A-F]#.*/\1\2/p' "$1"; }
paste <(micros "$dir/recorded.log") <(micros "$dir/dump.log") | awk -v took="$took" '
  NR > 1 { off = ($2 - p2) - ($1 - p1); if (off < 0) off = -off
           if (off > worst) worst = off; if (off > 1000) over++; sum += off }
  { p1 = $1; p2 = $2 }
  END { printf "replay of %d frames in %.1f s: %d of %d spacings over 1 ms, worst %d us off, mean %.1f us\n",
          NR, took / 1000, over, NR - 1, worst, sum / (NR - 1) }'
