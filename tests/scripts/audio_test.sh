#!/usr/bin/env bash
# Recording and playback on the bench's sound server: the audio test program
# under scripts/simrun --sound with sounds made here, then what it recorded
# and played checked sample for sample by tests/scripts/audio_check.py; the
# full-disk case again with "\Device Temp" on a small file system.
#   audio_test.sh TEST_AUDIO_EXE
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
program=${1:?the audio test program}
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-audio.XXXXXX")
trap 'umount -l "$work/disk/Device Temp" 2>/dev/null; rm -rf "$work"' EXIT
source "$root/tests/scripts/check.sh"
rate=22050
disk="$work/disk"
mkdir -p "$disk/Hard Disk" "$disk/Device Software"
"$root/scripts/speech" --rate $rate --before 1 --speech 2 --after 3 "$disk/speech.wav" >/dev/null || exit 1
sox -n -r $rate -c 1 -b 16 "$disk/tone.wav" synth 8 sine 440 vol 0.5 || exit 1
sox -n -r $rate -c 1 -b 16 "$disk/Device Software/sweep.wav" synth 1.3 sine 200-3000 vol 0.5 || exit 1
sox -n -r $rate -c 1 -b 16 "$disk/Device Software/blip.wav" synth 0.2 sine 800-1600 vol 0.6 || exit 1

out="$work/out"
BRENNOCK_AUDIO_OUT="$out" "$root/scripts/simrun" --no-build --disk "$disk" --sound "--rate $rate" \
  -- "$program" --gtest_filter=-WaveFile*:*FullDisk* || exit 1

check_py() { python3 "$root/tests/scripts/audio_check.py" "$@"; }
check "speech: stored from the half second before the trigger, stopped by the quiet, progress as heard" \
  check_py recording "$out/speech.wav" "$out/speech.events" "$disk/speech.wav" $rate
check "maxSeconds: two buffers of the tone, every second sample" \
  check_py stored "$out/maxseconds.wav" "$disk/tone.wav" $rate 2
for name in untriggered cancelled closed eightbit; do
  check "$name: the file's sizes agree with its length" check_py header "$out/$name.wav"
done
for sound in sweep blip; do
  check "$sound: played into the speaker unchanged" \
    check_py played-match "$disk/speaker.raw" "$disk/Device Software/$sound.wav" --gaps
done

# A full disk during a recording: "\Device Temp" on a 64 KB file system.
mkdir -p "$disk/Device Temp"
if mount -t tmpfs -o size=64k tmpfs "$disk/Device Temp" 2>/dev/null; then
  BRENNOCK_AUDIO_OUT="$out" "$root/scripts/simrun" --no-build --disk "$disk" --sound "--rate $rate" \
    -- "$program" --gtest_filter=*FullDisk* || failures=$((failures + 1))
  check "full disk: the file's sizes agree with its length" check_py header "$out/fulldisk.wav"
else
  echo "skip full disk: this machine cannot mount a small file system (needs root)"
fi
exit $((failures > 0))
