#!/usr/bin/env bash
# Installs what is needed, builds, and starts Tessel on the simulated bench. Answer the
# prompt "Remote server name:" with Enter: "localhost" starts the CAN server, which runs the
# simulated bus, drives and bench.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default

if [ -z "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
  echo "Tessel is a desktop program and needs a display (DISPLAY or WAYLAND_DISPLAY)." >&2
  echo "Without one, run the CAN server alone: ./build/bin/qorcalib-server" >&2
  exit 1
fi
# Stand-ins for the post-processor, the JTAG flasher and the production interface, found after
# any real ones.
export PATH="$PATH:$PWD/data/bin"
exec ./build/bin/tessel "$@"
