#!/usr/bin/env bash
# Installs every Debian package that building, testing and running Tessel and its CAN
# server need. Safe to run again; does nothing when all packages are already there.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  qt6-base-dev qt6-base-dev-tools
  qt6-remoteobjects-dev libqt6remoteobjects6-bin
  qt6-serialbus-dev libqt6serialbus6
  qt6-serialport-dev
  libqcustomplot-dev
  libqt6sql6-sqlite libqt6sql6-psql
  postgresql postgresql-common
  qt6-qpa-plugins
  libssl-dev
  libgl-dev
  xvfb xauth
  help2man lintian fakeroot dpkg-dev gzip
  python3 python3-can
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
