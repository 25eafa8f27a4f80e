#!/usr/bin/env bash
# Builds the Debian package of Tessel, build/tessel_<version>_amd64.deb, from the default
# (release with debug information) build; the programs are stripped in the package. Then lists
# what lintian says of it. Install it with: sudo apt install ./build/tessel_*_amd64.deb
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default
(cd build && cpack -G DEB)
deb=$(ls build/tessel_*_amd64.deb)
echo "package: $deb ($(du -k "$deb" | cut -f1) KiB)"
dpkg-deb --field "$deb" Depends
lintian --no-tag-display-limit "$deb" || true
