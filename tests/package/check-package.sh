#!/usr/bin/env bash
# Builds the Debian package from a build folder and checks it as a bench technician meets it:
# the files it installs, its Depends, what lintian says (no errors), installing it into an
# empty root and finding the data there, the desktop program without a display, and removing
# it again leaving nothing behind.
#
#   tests/package/check-package.sh BUILD_FOLDER
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
build="$(cd "$1" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) ||
  { cat "$work/cpack.log"; fail "cpack did not build the package"; }
deb=$(ls "$work"/out/tessel_*_amd64.deb)
echo "package: $(basename "$deb"), $(du -k "$deb" | cut -f1) KiB"

# Exactly these files, with these permissions.
dpkg-deb -c "$deb" | awk '{print $1, $6}' >"$work/files.txt"
diff -u "$here/expected-files.txt" "$work/files.txt" || fail "the package's files differ"

# Depends: the Qt libraries the programs link, computed from them, and the SQLite driver the
# serial counter loads at run time.
depends=$(dpkg-deb --field "$deb" Depends)
echo "Depends: $depends"
names=$(tr ',' '\n' <<<"$depends" | awk '{print $1}')
for lib in libc6 libstdc++6 libqt6core6 libqt6gui6 libqt6widgets6 libqt6network6 \
  libqt6remoteobjects6 libqt6serialbus6 libqt6serialport6 libqt6sql6 libqt6sql6-sqlite \
  libqcustomplot2.1-qt6; do
  grep -qxF "$lib" <<<"$names" || fail "Depends lacks $lib"
done

lintian --tag-display-limit 0 "$deb" >"$work/lintian.txt" 2>&1 || true
grep -v 'running with root privileges' "$work/lintian.txt" || true
if grep -q '^E: ' "$work/lintian.txt"; then fail "lintian reports errors"; fi

# Into an empty root of its own, with a dpkg database of its own.
root="$work/root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
touch "$root/var/lib/dpkg/status"
(cd "$root" && find . -path ./var/lib/dpkg -prune -o -print | sort) >"$work/before.txt"
dpkg_root=(dpkg --root="$root" --force-depends --force-not-root --log=/dev/null)
"${dpkg_root[@]}" --install "$deb" >"$work/dpkg.log" 2>&1 ||
  { cat "$work/dpkg.log"; fail "dpkg could not install the package"; }
"${dpkg_root[@]}" -L tessel | grep -qx /usr/bin/tessel || fail "dpkg -L does not list tessel"

# The installed programs take their data from the installed share/tessel folder: the installed
# server's simulated drive reads the installed EDS, and the installed tessel-cli reads its name.
bare=(env -u TESSEL_DATA_DIR -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM)
"${bare[@]}" "$root/usr/bin/qorcalib-server" --socket "$work/socket" --unpaced --idle-exit 5 \
  >"$work/server.log" 2>&1 &
server=$!
for attempt in $(seq 1 50); do
  [ -S "$work/socket" ] && break
  sleep 0.1
done
name=""
for attempt in $(seq 1 40); do
  name=$("${bare[@]}" "$root/usr/bin/tessel-cli" --socket "$work/socket" \
    sdo read 1,1008,0 --type str 2>/dev/null) && break
  sleep 0.25
done
kill "$server" 2>/dev/null || true
wait "$server" 2>/dev/null || true
[ "$name" = "QD-300" ] || { cat "$work/server.log";
  fail "the installed tessel-cli and qorcalib-server did not read the drive's name"; }
echo "the installed tessel-cli read the installed simulated drive's name: $name"
"${bare[@]}" "$root/usr/bin/tessel-simdrive" --help | tr -d ' \n' |
  grep -qF "(default:$root/usr/share/tessel/drive.eds)" ||
  fail "the installed tessel-simdrive does not take its EDS from $root/usr/share/tessel"

# Without a display the desktop program says so and ends, instead of aborting in Qt.
set +e
message=$(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM "$root/usr/bin/tessel" 2>&1)
status=$?
set -e
echo "tessel without a display: exit $status: $message"
[ "$status" -eq 1 ] || fail "tessel without a display ended with $status, not 1"
grep -q "^tessel: no display" <<<"$message" || fail "tessel without a display did not say so"

"${dpkg_root[@]}" --purge tessel >>"$work/dpkg.log" 2>&1 ||
  { cat "$work/dpkg.log"; fail "dpkg could not remove the package"; }
(cd "$root" && find . -path ./var/lib/dpkg -prune -o -print | sort) >"$work/after.txt"
diff -u "$work/before.txt" "$work/after.txt" || fail "removing the package left files behind"
echo "installed $(wc -l <"$work/files.txt") entries and removed them again"
