#!/usr/bin/env bash
# Installs what is needed, builds, and starts the CAN server on the simulated bench.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default

echo
echo "The desktop program is not built yet: starting qorcalib-server, the CAN server, on the"
echo "simulated bench (Ctrl+C stops it). Clients reach it on its local socket."
echo
exec ./build/server/qorcalib-server "$@"
