#!/usr/bin/env bash
# surface.js in the device shell next to every simulator; it must exit 0.
#   shell_surface_test.sh HOST_BIN_DIR SHELL_EXE
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
host=${1:?native build directory}
shell=${2:?the device shell}
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-surface.XXXXXX")
trap 'rm -rf "$work"' EXIT

disk="$work/disk"
"$root/scripts/bench-disk" "$disk" "$work/study" || exit 1
sox -n -r 22050 -c 1 -b 16 "$disk/Device Software/blip.wav" synth 0.3 sine 800 vol 0.5 || exit 1
touch "$disk/debug.log"
"$root/scripts/simrun" --no-build --disk "$disk" --sound "" --watch "--rate fast --seated --log-address 0x4000" \
  -- "$shell" --timeout 240 --log "$disk/debug.log" "$root/tests/scripts/surface.js" && exit 0
echo "FAIL surface.js (the control's debug output: $disk/debug.log)"
tail -n 30 "$disk/debug.log" 2>/dev/null
exit 1
