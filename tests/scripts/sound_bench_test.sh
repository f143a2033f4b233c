#!/usr/bin/env bash
# The sound simulator on its own, through its real server: a noise file fed
# to the microphone reaches a recorder at the bench rate unchanged and one at
# half the rate as every second sample, and noise played to the speaker
# lands whole in speaker.raw. Noise makes any resampling, dropped or
# repeated sample show.
#   sound_bench_test.sh BRENNOCK-SOUND
set -uo pipefail
sim="${1:?usage: sound_bench_test.sh BRENNOCK-SOUND}"
check="$(dirname "$0")/audio_check.py"
dir=$(mktemp -d "${TMPDIR:-/tmp}/brennock-soundtest.XXXXXX")
pids=()
cleanup() {
  local p
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
  rm -rf "$dir"
}
trap cleanup EXIT
fail() { echo "FAIL: $*"; tail -n 20 "$dir/sound.log" 2>/dev/null; exit 1; }
# wait_for PATTERN: the sound log has a line matching it (10 s at most).
wait_for() {
  local i
  for i in $(seq 1 200); do
    grep -q -- "$1" "$dir/sound.log" 2>/dev/null && return 0
    sleep 0.05
  done
  fail "no \"$1\" in the sound log"
}

sox -R -n -r 22050 -c 1 -b 16 "$dir/noise.wav" synth 1 whitenoise vol 0.7 || fail "sox could not make noise"

"$sim" --disk "$dir" --server-path "$dir/server" --ready "$dir/ready" --quiet </dev/null &
pids+=($!)
for i in $(seq 1 200); do [ -e "$dir/ready" ] && break; sleep 0.05; done
[ -e "$dir/ready" ] || fail "the sound simulator did not get ready"
export PULSE_SERVER=$(head -n 1 "$dir/server")

parec --device=mic.monitor --file-format=wav --format=s16le --channels=1 --rate=22050 "$dir/full.wav" &
pids+=($!)
parec --device=mic.monitor --file-format=wav --format=s16le --channels=1 --rate=11025 "$dir/half.wav" &
pids+=($!)
# Both recorders are connected before the feed starts.
for i in $(seq 1 200); do
  [ "$(pactl list short source-outputs | wc -l)" -ge 2 ] && break
  sleep 0.05
done
echo "mic $dir/noise.wav" >> "$dir/sound.cmd"
wait_for "mic end $dir/noise.wav"
sleep 0.2
kill -TERM "${pids[1]}" "${pids[2]}"
wait "${pids[1]}" "${pids[2]}"

pacat --playback --device=speaker --file-format=wav "$dir/noise.wav" || fail "pacat could not play to the speaker"
echo "mark played" >> "$dir/sound.cmd"
wait_for "mark played"

rc=0
# The recording at the bench rate holds the file whole.
python3 "$check" played-match "$dir/full.wav" "$dir/noise.wav" || rc=1
# The half-rate one is every second sample.
python3 "$check" decimated-match "$dir/half.wav" "$dir/noise.wav" || rc=1
python3 "$check" played-match "$dir/speaker.raw" "$dir/noise.wav" || rc=1
# A file at another rate is refused with the reason.
sox -n -r 8000 -c 1 -b 16 "$dir/other.wav" trim 0 0.1 2>/dev/null
echo "mic $dir/other.wav" >> "$dir/sound.cmd"
wait_for "other.wav is 8000 Hz"
[ $rc -eq 0 ] || fail "the bench changed the sound"
echo "PASS: the bench passes sound through unchanged"
