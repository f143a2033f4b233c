#!/usr/bin/env bash
# Power cuts: the device shell running tests/power/cut.js is killed with
# SIGKILL from outside (nothing in it runs after that) while the control writes
# one kind of file, at the point the script marks and at random delays after
# it. After every cut the next run's Open must work, and every file on the
# device disk must be as it was or complete as the study's readers see it: the
# assert file's line layout, nvimage, motr2csv, trem2bin, Python's wave
# module, ezip verify.
#
#   power_cut_test.sh HOST_BIN_DIR SHELL_EXE [CUTS_PER_KIND] [SEED]
#
# Only counted, as the design cannot keep them: a recording's .wav whose header
# sizes are written at its close, half-written files of a session in
# \Device Temp (a session cut short is not ended; the next start empties it),
# and the package being written at the cut (a package that was whole before
# the run must still verify).
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
host=${1:?native build directory}
shell=${2:?the device shell}
cuts=${3:-3}
seed=${4:-$$}
RANDOM=$seed
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-power.XXXXXX")
trap 'rm -rf "$work"' EXIT
echo "power cuts: $cuts per kind, seed $seed"

study="$work/study"
disk="$work/disk"
"$root/scripts/bench-disk" "$disk" "$study" --after 30 || exit 1

# ---------------------------------------------------------------------------
# Killing the shell.

descendants() {
  local p
  for p in $(cat /proc/"$1"/task/*/children 2>/dev/null); do echo "$p"; descendants "$p"; done
}
shell_pid() {  # the Wine process that runs the shell, under simrun $1 (its
  local p      # command line begins with the shell's Windows path)
  for p in $(descendants "$1"); do
    if head -c 300 /proc/"$p"/cmdline 2>/dev/null | tr '\0' '\n' | head -n 1 | grep -qE '^[A-Za-z]:\\.*brennock-shell\.exe$'; then
      echo "$p"; return 0
    fi
  done
  return 1
}
wait_mark() {  # wait_mark PATTERN SIMRUN_PID: until cut.cmd has a line matching, or the run ended
  local i
  for ((i = 0; i < 6000; i++)); do
    grep -qE "$1" "$disk/cut.cmd" 2>/dev/null && return 0
    kill -0 "$2" 2>/dev/null || return 1
    sleep 0.01
  done
  return 1
}

problems=0
problem() { echo "FAIL $*"; problems=$((problems + 1)); }

# cut KIND MODE DELAY_MS [WAIT_BYTES_FILE BYTES] [simrun options...]: one run of
# cut.js MODE, killed DELAY_MS after its point mark (or once a file has grown
# by BYTES, when given).
run_cut() {
  local kind=$1 mode=$2 delay=$3 grow_file=$4 grow_bytes=$5; shift 5
  : > "$disk/cut.cmd"
  find "$disk" -name '*.ezip' -exec md5sum {} + > "$work/packages.before"
  "$root/scripts/simrun" --no-build --disk "$disk" "$@" \
    -- "$shell" --timeout 100 --quiet-debug "$root/tests/power/cut.js" "$mode" > "$work/run.out" 2>&1 &
  local sp=$!
  if ! wait_mark '^(opened|failed)' $sp || ! grep -q '^opened' "$disk/cut.cmd"; then
    wait $sp; problem "$kind: the run before the cut did not open"; cat "$work/run.out"; return
  fi
  local pid; pid=$(shell_pid $sp)
  if [ -z "$pid" ]; then wait $sp; problem "$kind: no shell process found"; return; fi
  if ! wait_mark '^point' $sp; then
    wait $sp; problem "$kind: the script never reached its point"; cat "$work/run.out" "$disk/cut.cmd"; return
  fi
  if [ -n "$grow_file" ]; then
    local start; start=$(stat -c %s "$grow_file" 2>/dev/null || echo 0)
    while [ "$(stat -c %s "$grow_file" 2>/dev/null || echo 0)" -lt $((start + grow_bytes)) ] && kill -0 "$pid" 2>/dev/null; do :; done
  fi
  [ "$delay" -gt 0 ] && sleep "$(printf '0.%03d' "$delay")"
  kill -KILL "$pid" 2>/dev/null
  wait $sp
  if kill -0 "$pid" 2>/dev/null; then problem "$kind: the shell outlived its kill"; kill -KILL "$pid"; fi
  points+=("$(grep '^point' "$disk/cut.cmd" | tail -n 1 | cut -d' ' -f2-)+${delay}ms")
}

# ---------------------------------------------------------------------------
# Reading every file back.

declare -A checked unreadable notes
count() {  # count KIND OK NOTE
  checked[$1]=$((${checked[$1]:-0} + 1))
  if [ "$2" != ok ]; then
    unreadable[$1]=$((${unreadable[$1]:-0} + 1))
    case "$2" in
      expected*) notes[$1]="${notes[$1]:-}${notes[$1]:+; }$3" ;;
      *) problem "$1: $3" ;;
    esac
  fi
}
in_temp() { case "$1" in *"/Device Temp/"*) return 0 ;; esac; return 1; }
trem() { "$host/trem2bin" "$1" -o "$work/t.bin" --csv "$work/t.csv"; }
each() {  # each KIND NAME COMMAND...: every such file reads with COMMAND FILE, or is cut short in Device Temp
  local kind=$1 name=$2 f; shift 2
  while IFS= read -r -d '' f; do
    if "$@" "$f" > /dev/null 2>&1; then count "$kind" ok
    elif in_temp "$f"; then count "$kind" expected "$(basename "$f") cut short in Device Temp"
    else count "$kind" bad "$f does not read"; fi
  done < <(find "$disk" -name "$name" -print0)
}

check_disk() {  # check_disk KIND
  local kind=$1 f
  # The assert file: whole lines only.
  if [ -f "$disk/Hard Disk/asserts.txt" ]; then
    if python3 - "$disk/Hard Disk/asserts.txt" <<'EOF'
import re, sys
data = open(sys.argv[1], "rb").read()
line = re.compile(rb"(Mon|Tue|Wed|Thu|Fri|Sat|Sun) \d\d [A-Z][a-z][a-z] \d{4} \d\d:\d\d:\d\d \S+ line -?\d+ .*\r\n")
sys.exit(0 if data == b"" or (data.endswith(b"\r\n") and all(line.fullmatch(l + b"\r\n") for l in data.split(b"\r\n")[:-1])) else 1)
EOF
    then count "$kind" ok; else count "$kind" bad "asserts.txt has a broken line"; fi
  fi
  # The NVRAM in flash: a whole block with the keys and a valid image.
  f="$disk/Hard Disk/flashblock.bin"
  if [ "$(stat -c %s "$f" 2>/dev/null)" = 4660 ] && "$host/nvimage" --dump "$f" > "$work/nv.txt" 2>&1 &&
     [ "$(dd if="$f" bs=1 skip=2612 count=4 2>/dev/null)" = ZOLW ] && grep -qi "device.*1234" "$work/nv.txt"; then
    count "$kind" ok
  else
    count "$kind" bad "flashblock.bin is not a whole block with the NVRAM image and the keys ($(stat -c %s "$f" 2>/dev/null) bytes)"
  fi
  each "$kind" '*.motr' "$host/motr2csv"
  each "$kind" '*.trem' trem
  while IFS= read -r -d '' f; do
    local state
    state=$(python3 - "$f" <<'EOF'
import struct, sys, wave
path = sys.argv[1]
raw = open(path, "rb").read()
try:
    w = wave.open(path)
    n = w.getnframes() * w.getsampwidth() * w.getnchannels()
    riff = struct.unpack("<I", raw[4:8])[0]
    print("ok" if n > 0 and riff + 8 == len(raw) and n == len(raw) - 46 else "sizes0" if riff == 0 else "bad")
except Exception as e:
    print("sizes0" if len(raw) >= 46 and raw[:4] == b"RIFF" and struct.unpack("<I", raw[4:8])[0] == 0 else "bad")
EOF
)
    if [ "$state" = ok ]; then count "$kind" ok
    elif [ "$state" = sizes0 ] && in_temp "$f"; then
      count "$kind" expected "$(basename "$f"): header sizes 0 (written at close), $(($(stat -c %s "$f") - 46)) sample bytes there"
    else count "$kind" bad "$f is not a readable wave file"; fi
  done < <(find "$disk" -name '*.wav' ! -name speech.wav ! -path '*/Device Software/*' -print0)
  # A package that was whole before the run must still be; the one being
  # written at the cut is left partly written, as the encryption leaves a
  # failed output, and its signature refuses it.
  while IFS= read -r -d '' f; do
    if "$host/ezip" verify "$f" --key "$study/server.key.pem" > /dev/null 2>&1; then count "$kind" ok
    elif ! grep -qxF "$(md5sum "$f")" "$work/packages.before"; then
      count "$kind" expected "$(basename "$f") cut while being written ($(stat -c %s "$f") bytes)"
    else count "$kind" bad "$(basename "$f"), whole before the cut, does not verify"; fi
  done < <(find "$disk" -name '*.ezip' -print0)
}

# ---------------------------------------------------------------------------
# The cuts.

declare -A cut_points
kinds=(${POWER_KINDS:-assert nvram motr wav trem package})
for kind in "${kinds[@]}"; do
  points=()
  for ((i = 0; i < cuts; i++)); do
    case $kind in
      assert) run_cut assert assert 0 "$disk/Hard Disk/asserts.txt" $(((i + 1) * 997)) ;;
      nvram) run_cut nvram nvram $((i == 0 ? 0 : RANDOM % 400)) "" 0 ;;
      motr) run_cut motr motr $((i == 0 ? 0 : RANDOM % 40)) "" 0 ;;
      wav) run_cut wav wav $((RANDOM % 900)) "" 0 --sound "" ;;
      trem) run_cut trem trem $((i == 0 ? 0 : RANDOM % 150)) "" 0 --watch "--rate fast --seated --log-address 0x8000" ;;
      package) run_cut package package $((i == 0 ? 0 : RANDOM % 600)) "" 0 ;;
    esac
    check_disk $kind
  done
  cut_points[$kind]="${points[*]}"
done

# The device comes up after the last cut.
: > "$disk/cut.cmd"
"$root/scripts/simrun" --no-build --disk "$disk" -- "$shell" --timeout 60 --quiet-debug \
  "$root/tests/power/cut.js" open > "$work/run.out" 2>&1 || { problem "Open after the last cut"; cat "$work/run.out"; }

printf '\n%-8s %-5s %-8s %-10s %s\n' kind cuts checked unreadable "points cut (mark + delay); notes"
for kind in "${kinds[@]}"; do
  printf '%-8s %-5s %-8s %-10s %s\n' $kind $cuts ${checked[$kind]:-0} ${unreadable[$kind]:-0} \
    "${cut_points[$kind]}${notes[$kind]:+; expected: ${notes[$kind]}}"
done
echo
if [ $problems -eq 0 ]; then echo "power cuts: every file as before or complete"; else echo "power cuts: $problems problems"; fi
exit $((problems > 0))
