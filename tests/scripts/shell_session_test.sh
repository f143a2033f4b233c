#!/usr/bin/env bash
# The sample UI session in the device shell next to every simulator, then
# what the study receives from it.
#   shell_session_test.sh HOST_BIN_DIR SHELL_EXE
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
host=${1:?native build directory}
shell=${2:?the device shell}
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-session.XXXXXX")
trap 'rm -rf "$work"' EXIT
source "$root/tests/scripts/check.sh"

study="$work/study" disk="$work/disk"
"$root/scripts/bench-disk" "$disk" "$study" || exit 1
touch "$disk/debug.log"

"$root/scripts/simrun" --no-build --disk "$disk" --sound "" --watch "--rate fast --seated" \
  -- "$shell" --timeout 110 --log "$disk/debug.log" "$root/examples/shell/session.js" > "$work/session.out"
rc=$?
cat "$work/session.out"
check "the session script ends with 0" test $rc -eq 0
package=$(ls "$disk/Hard Disk/Device Data/"*.ezip 2>/dev/null | tail -n 1)
check "one package in Device Data" test -n "$package"
check "the package opens with the study's key" \
  "$host/ezip" open "${package:-/none}" --key "$study/server.key.pem" --out "$work/received"
one() { ls "$work/received/"*"$1" 2>/dev/null | head -n 1; }
tap=$(one Tap.motr); pegs=$(one Pegs.motr); quest=$(one Quest.txt); wav=$(one Voice.wav); trem=$(one Watch.trem)
for f in "$tap" "$pegs" "$quest" "$wav" "$trem"; do
  check "received $(basename "${f:-(missing)}")" test -s "${f:-/none}"
done

# The taps: left then right, four times, deltas 80.. and 90.. as played.
taps=$("$host/motr2csv" "${tap:-/none}" 2>/dev/null | python3 -c '
import csv, sys
rows = [r for r in csv.DictReader(sys.stdin) if r["event"].startswith("Digito") and not r["problem"]]
print(" ".join("%s:%s" % (r["event"].replace("Digito", "").replace("ward", ""), r["delta_ticks"]) for r in rows))')
want="LeftDown:80 LeftUp:60 RightDown:90 RightUp:60 LeftDown:85 LeftUp:60 RightDown:95 RightUp:60"
want="$want LeftDown:90 LeftUp:60 RightDown:100 RightUp:60 LeftDown:95 LeftUp:60 RightDown:105 RightUp:60"
check "the .motr holds the taps the scenario played" test "$taps" = "$want"
last_map=$("$host/motr2csv" "${pegs:-/none}" 2>/dev/null | python3 -c '
import csv, sys
maps = [(r["pegs_left"], r["pegs_right"]) for r in csv.DictReader(sys.stdin) if r["event"] == "PegsMap"]
print("%s,%s" % maps[-1] if maps else "none")')
check "the pegs test ends with every peg on the right (last map $last_map)" test "$last_map" = "0,15"
check "the questionnaire's three answers" test "$(wc -l < "${quest:-/dev/null}")" -eq 3
check "the voice recording is well formed" python3 "$root/tests/scripts/audio_check.py" header "${wav:-/none}"
check "the voice recording holds sound" python3 -c '
import sys, wave, array
w = wave.open(sys.argv[1]); a = array.array("h"); a.frombytes(w.readframes(w.getnframes()))
sys.exit(0 if w.getframerate() == 11025 and len(a) > 11025 and max(abs(x) for x in a) > 5000 else 1)' "${wav:-/none}"
check "the watch's .trem reads back" "$host/trem2bin" "${trem:-/none}" -o "$work/watch.bin"

# On a disk nobody provisioned the script stops at Open with its reason.
"$root/scripts/simrun" --no-build -- "$shell" --timeout 60 --quiet-debug "$root/examples/shell/session.js" \
  > "$work/bare.out" 2>&1
rc=$?
check "an unprovisioned disk: exit 1 with one reason" \
  sh -c 'test $1 -eq 1 && grep -q "FAILED: the control did not open (is the disk provisioned" "$2"' _ $rc "$work/bare.out"
exit $((failures > 0))
