#!/usr/bin/env bash
# tessel-cli's costs as a line script meets them: an SDO read of one entry, connecting to a
# running server included (the server started here on its own socket, the paced bus).
# Usage: benchmarks/bench_cli.sh [READS] (default 50), from the repository, after a build.
set -euo pipefail
reads=${1:-50}
socket=$(mktemp -u /tmp/qorcalib-bench-XXXXXX)
# Settings of its own: a remote server named in the user's settings is not the one measured.
XDG_CONFIG_HOME=$(mktemp -d /tmp/qorcalib-bench-config-XXXXXX)
export XDG_CONFIG_HOME
trap 'rm -rf "$XDG_CONFIG_HOME"' EXIT
./build/bin/qorcalib-server --socket "$socket" --idle-exit 5 >/dev/null 2>&1 &
cli=(./build/bin/tessel-cli --socket "$socket")
for _ in $(seq 50); do "${cli[@]}" sdo read 1,1000,0 >/dev/null 2>&1 && break; sleep 0.1; done
times=()
for _ in $(seq "$reads"); do
  start=$(date +%s%N)
  "${cli[@]}" sdo read 1,1018,1 --type u32 >/dev/null
  times+=($(( ($(date +%s%N) - start) / 1000 )))
done
printf '%s\n' "${times[@]}" | sort -n | awk '{ t[NR] = $1 / 1000 } END {
  printf "sdo read, process start to exit, %d runs: median %.1f ms, 90th percentile %.1f ms, worst %.1f ms\n",
    NR, t[int((NR + 1) / 2)], t[int(NR * 0.9)], t[NR] }'
