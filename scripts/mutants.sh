#!/bin/bash
# Do the tests catch real faults? Applies, one at a time, the one-line faults listed in
# scripts/mutants.list to a copy of the committed tree, rebuilds, runs the tests that own the
# changed file, and counts the faults the tests caught ("killed"). Prints one line per fault and
# the score at the end; the faults that survived are the tests' blind spots.
#
#   scripts/mutants.sh [--tree DIR] [--only REGEX] [--list FILE]
#
# --tree DIR   where the copy and its build live (default: /tmp/tessel-mutants); kept between
#              runs, so that a second run only rebuilds what changed.
# --only REGEX runs only the faults whose line matches (a file name, a word of the fault).
# --list FILE  another list of faults.
#
# A line of the list is: path @@ text as it stands in the file @@ the text that replaces it.
# The text must occur exactly once in the file. Lines starting with # and blank lines are
# skipped. Which tests run for a file is set in tests_for() below, by the file's folder.
#
# The copy is of HEAD: commit first. A full run of the list takes about half an hour on two cores.
set -u
here=$(cd "$(dirname "$0")/.." && pwd)
tree=/tmp/tessel-mutants
only=
list="$here/scripts/mutants.list"
while [ $# -gt 0 ]; do
    case $1 in
    --tree) tree=$2; shift 2 ;;
    --only) only=$2; shift 2 ;;
    --list) list=$2; shift 2 ;;
    *) echo "mutants.sh: unknown option $1" >&2; exit 2 ;;
    esac
done

tests_for() {
    case $1 in
    server/canopen/sdo*) echo tst_canopen tst_simdrive ;;
    server/canopen/lss*) echo tst_canopen tst_lssservice ;;
    server/canopen/nmt*) echo tst_canopen tst_simdrive ;;
    server/canopen/boot*) echo tst_canopen tst_bootloader ;;
    server/canopen/*) echo tst_canopen tst_simdrive ;;
    interface/bittiming*) echo tst_can ;;
    interface/decimal*) echo tst_monitor tst_canopendecoder ;;
    server/host/packet*) echo tst_packetrules tst_serverboundary ;;
    server/host/lss*) echo tst_lssservice ;;
    server/host/*) echo tst_server tst_serverboundary ;;
    server/sim/*) echo tst_sim tst_simdrive ;;
    src/trace/*) echo tst_trace tst_tracefiles ;;
    src/monitor/frminviamesg*) echo tst_monitortools ;;
    src/monitor/*) echo tst_monitor ;;
    src/firmware/*) echo tst_firmware tst_upgrade ;;
    src/bench/alarm*) echo tst_bench tst_sim ;;
    src/bench/*) echo tst_bench ;;
    src/production/*) echo tst_production tst_xboot ;;
    src/cli/*) echo tst_cli ;;
    src/sdo/*) echo tst_sdohelpers tst_frmmain ;;
    src/plot/*) echo tst_plotdata tst_monitortools ;;
    src/canlink/sampling*) echo tst_canlink tst_plotdata tst_monitortools tst_cli ;;
    src/decode/*) echo tst_canopendecoder tst_plotdata ;;
    *) echo "" ;;
    esac
}

log() { printf '%s\n' "$*"; }

# The copy: a worktree of HEAD, built without optimisation (quicker to rebuild).
if [ ! -d "$tree/.git" ] && [ ! -f "$tree/.git" ]; then
    git -C "$here" worktree add --detach "$tree" HEAD >/dev/null || exit 1
else
    git -C "$tree" checkout --detach --force "$(git -C "$here" rev-parse HEAD)" >/dev/null 2>&1 || exit 1
fi
build="$tree/build-mutants"
cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DTESSEL_WARNINGS_AS_ERRORS=OFF >/dev/null || exit 1
log "mutants: building the copy in $build"
ninja -C "$build" >/dev/null || { echo "mutants: the unchanged copy does not build" >&2; exit 1; }

killed=0
total=0
invalid=0
survivors=()
while IFS= read -r line; do
    case $line in '' | '#'*) continue ;; esac
    [ -n "$only" ] && ! printf '%s' "$line" | grep -Eq -- "$only" && continue
    file=${line%% @@ *}
    rest=${line#* @@ }
    from=${rest%% @@ *}
    to=${rest#* @@ }
    tests=$(tests_for "$file")
    if [ -z "$tests" ] || [ ! -f "$tree/$file" ]; then
        log "?      $file: no tests named for it, or no such file"
        invalid=$((invalid + 1))
        continue
    fi
    # Replace the one occurrence; a text found 0 or 2+ times is a fault of the list.
    if ! FROM=$from TO=$to python3 - "$tree/$file" <<'EOF'; then
import os, sys
path = sys.argv[1]
text = open(path, encoding='utf-8').read()
old, new = os.environ['FROM'], os.environ['TO']
if text.count(old) != 1:
    sys.exit(1)
open(path, 'w', encoding='utf-8').write(text.replace(old, new))
EOF
        log "?      $file: \"$from\" does not occur exactly once"
        invalid=$((invalid + 1))
        continue
    fi
    total=$((total + 1))
    regex="^($(echo "$tests" | tr ' ' '|'))\$"
    if ! ninja -C "$build" $tests qorcalib-server tessel-cli >/dev/null 2>&1; then
        verdict=killed # the compiler caught it
    elif (cd "$build" && QT_QPA_PLATFORM=offscreen timeout 600 ctest -R "$regex" \
        --stop-on-failure >/dev/null 2>&1); then
        verdict=lived
    else
        verdict=killed
    fi
    git -C "$tree" checkout -- "$file"
    if [ $verdict = killed ]; then
        killed=$((killed + 1))
        log "killed $file: $from -> $to"
    else
        survivors+=("$file: $from -> $to")
        log "LIVED  $file: $from -> $to   [$tests]"
    fi
done <"$list"
ninja -C "$build" >/dev/null 2>&1
log ""
log "mutants: $killed/$total killed ($((total ? killed * 100 / total : 0)) %), $invalid lines of the list not applied"
for s in "${survivors[@]}"; do log "  lived: $s"; done
