#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test; then builds again with
# AddressSanitizer and UndefinedBehaviorSanitizer and runs every test once more.
# --no-sanitize skips the second round.
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=1
[ "${1:-}" = "--no-sanitize" ] && sanitize=0

bash scripts/install-deps.sh
export QT_QPA_PLATFORM=offscreen

cmake --preset default >/dev/null
cmake --build --preset default
# Most tests wait on a paced bus or a server's time-out rather than compute: four at a time keep
# two cores busy (the round takes about 55 s instead of 110 s). The sanitizer build needs the
# CPU itself, two at a time.
ctest --preset default -j4

if [ "$sanitize" = 1 ]; then
  cmake --preset asan >/dev/null
  cmake --build --preset asan
  ctest --preset asan -j2
fi
