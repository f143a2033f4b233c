#!/usr/bin/env bash
# A program run by scripts/simrun finds the watch simulator on COM1 whether
# the prefix's Wine server was down before simrun started or already up: as
# the server brings the prefix's system processes up, Wine's device manager
# relinks dosdevices/com1 to /dev/ttyS0 (where that exists), losing a COM1
# link made before. A prefix of its own, so stopping its server disturbs no
# other test.
set -uo pipefail
prog="${1:?usage: simrun_com1_test.sh PROGRAM}"
root=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-com1.XXXXXX")
export BRENNOCK_WINEPREFIX="$work/prefix"
# A port that leads somewhere else can leave the program waiting on reads.
export BRENNOCK_TIMEOUT=120
source "$root/scripts/env.sh"

holder=""
cleanup() {
  [ -n "$holder" ] && kill "$holder" 2>/dev/null && wait "$holder" 2>/dev/null
  wineserver -k >/dev/null 2>&1
  wineserver -w >/dev/null 2>&1
  rm -rf "$work"
}
trap cleanup EXIT

"$root/scripts/wineprefix" || exit 1

failed=0
run() {
  echo "--- $1"
  if ! "$root/scripts/simrun" --no-build --watch "--rate fast --seated" -- "$prog"; then
    echo "FAILED: $1" >&2
    failed=1
  fi
}

# The server down, and COM1 linked somewhere else beforehand.
wineserver -k >/dev/null 2>&1
wineserver -w >/dev/null 2>&1
ln -sfT /dev/null "$WINEPREFIX/dosdevices/com1"
run "the Wine server was down"

# The server up (and its system processes started) before simrun.
wine "$BRENNOCK_BUILD/winehold.exe" </dev/null >/dev/null 2>&1 &
holder=$!
wine cmd /c exit </dev/null >/dev/null 2>&1
ln -sfT /dev/null "$WINEPREFIX/dosdevices/com1"
run "the Wine server was up"

exit $failed
