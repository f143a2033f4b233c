#!/usr/bin/env bash
# The audio benchmarks: CPU per second of recorded sound, then, next to the
# bench's sound server, the delay from the end of speech to AudioRecordEnded
# and from AudioPlay to the first sample at the speaker.
#   audio_bench.sh BENCH_AUDIO_EXE [RUNS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
program=${1:?the audio benchmark program}
runs=${2:-5}
disk=$(mktemp -d "${TMPDIR:-/tmp}/brennock-audiobench.XXXXXX")
trap 'rm -rf "$disk"' EXIT
mkdir -p "$disk/Hard Disk" "$disk/Device Software"
"$root/scripts/speech" "$disk/speech.wav" >/dev/null
sox -n -r 22050 -c 1 -b 16 "$disk/Device Software/Rec22k.wav" trim 0 0
sox -n -r 22050 -c 1 -b 16 "$disk/Device Software/sweep.wav" synth 1 sine 300-3000 vol 0.5
"$root/scripts/winrun" --no-build "$program" cpu 600
"$root/scripts/simrun" --no-build --disk "$disk" --sound "" -- "$program" record "$runs"
"$root/scripts/simrun" --no-build --disk "$disk" --sound "" -- "$program" play "$runs"
