#!/usr/bin/env bash
# The script surface: surface.js (every member, every event) and surface.vbs
# (what VBScript adds) in the device shell next to every simulator (the watch
# seated, the sound server on) on a disk provisioned for a bench study; each
# must end with exit code 0.
#   shell_surface_test.sh HOST_BIN_DIR SHELL_EXE
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
host=${1:?native build directory}
shell=${2:?the device shell}
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-surface.XXXXXX")
trap 'rm -rf "$work"' EXIT

base="$work/base"
"$root/scripts/bench-disk" "$base" "$work/study" || exit 1
sox -n -r 22050 -c 1 -b 16 "$base/Device Software/blip.wav" synth 0.3 sine 800 vol 0.5 || exit 1

failures=0
for script in surface.js surface.vbs; do
  disk="$work/disk-$script"
  cp -R "$base" "$disk"
  touch "$disk/debug.log"
  if "$root/scripts/simrun" --no-build --disk "$disk" --sound "" --watch "--rate fast --seated --log-address 0x4000" \
       -- "$shell" --timeout 240 --log "$disk/debug.log" "$root/tests/scripts/$script"; then
    echo "ok   $script"
  else
    echo "FAIL $script (the control's debug output: $disk/debug.log)"
    tail -n 30 "$disk/debug.log" 2>/dev/null
    failures=$((failures + 1))
  fi
done
exit $((failures > 0))
