#!/usr/bin/env bash
# Runs the structured fuzzer of the server's connection for longer than the test suite does:
# CONNECTIONS clients (default 5000), each sending a few malformed or foreign remote-objects
# packets, against a real qorcalib-server, while a well-behaved client is served throughout.
# --asan uses the AddressSanitizer/UndefinedBehaviorSanitizer build. Prints the seed and the
# figures (connections, packets, crashes, hangs); a failure names the seed to replay with
# TESSEL_FUZZ_SEED.
#
#   scripts/fuzz-server.sh [--asan] [CONNECTIONS]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=default
if [ "${1:-}" = "--asan" ]; then
  preset=asan
  shift
fi
connections="${1:-5000}"

bash scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target tst_serverboundary
dir=build
[ "$preset" = asan ] && dir=build-asan
export QT_QPA_PLATFORM=offscreen ASAN_OPTIONS=detect_leaks=0:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
TESSEL_FUZZ_CONNECTIONS="$connections" \
  "$dir/tests/host/tst_serverboundary" fuzzedPacketsNeverStopTheServer -maxwarnings 0 |
  grep -E 'fuzz:|FAIL|Totals'
