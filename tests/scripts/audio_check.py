#!/usr/bin/env python3
"""Checks sound taken from the bench against the files that made it.

  audio_check.py decimated-match REC.wav CAPTURE.wav
      REC was recorded at half CAPTURE's rate while CAPTURE played into the
      microphone: finds k with rec[i] == capture[k + 2*i] for every i.
  audio_check.py played-match SPEAKER.raw FILE.wav
      finds FILE's samples, whole and unchanged, in the speaker recording.
  audio_check.py progress-expect CAPTURE.wav K RATE
      the loudness the control reports for each half-second buffer of
      CAPTURE's samples from K on, recorded at RATE.

Samples are 16-bit signed mono; a recording may start or end outside the
capture file (the microphone is silent there), so samples before 0 or past
the end count as zero. Exit 0 only when the match is exact.
"""
import sys
import wave
from array import array


def load(path):
    """The 16-bit mono samples of a .wav file, or of a raw s16le file."""
    if path.endswith(".wav"):
        with wave.open(path, "rb") as w:
            if w.getsampwidth() != 2 or w.getnchannels() != 1:
                raise ValueError("%s: not 16-bit mono" % path)
            data = w.readframes(w.getnframes())
    else:
        with open(path, "rb") as f:
            data = f.read()
        data = data[: len(data) & ~1]
    samples = array("h")
    samples.frombytes(data)
    if sys.byteorder != "little":
        samples.byteswap()
    return samples


def first_nonzero(samples):
    return next((i for i, v in enumerate(samples) if v), None)


def decimated_match(rec, capture):
    """(k, mismatches) for the best k, or (None, None) when rec has no
    sample to place or its first 64 samples from its first sound are
    nowhere in the capture. k may be negative (the recording began before the
    capture) or past the capture's end."""
    n = len(rec)
    if n == 0:
        return None, None
    lead = 2 * n  # zeros either side of the capture
    padded = array("h", bytes(2 * lead)) + capture + array("h", bytes(2 * lead))
    start = first_nonzero(rec)
    if start is None:
        return None, None  # all silence: every place matches
    probe = range(start, min(n, start + 64))
    best = (None, None)
    for j in range(len(padded)):
        if padded[j] != rec[start]:
            continue
        k = j - 2 * start
        if k < 0 or k + 2 * (n - 1) >= len(padded):
            continue
        if any(padded[k + 2 * i] != rec[i] for i in probe):
            continue
        bad = sum(1 for i in range(n) if padded[k + 2 * i] != rec[i])
        if best[1] is None or bad < best[1]:
            best = (k - lead, bad)
            if bad == 0:
                break
    return best


def played_match(speaker, played):
    """The offset of played in speaker where it is whole and unchanged."""
    hay, needle = speaker.tobytes(), played.tobytes()
    at = hay.find(needle)
    while at >= 0 and at % 2:
        at = hay.find(needle, at + 1)
    return None if at < 0 else at // 2


def loudness(buffer, rate):
    """The control's loudness of one buffer: the highest average of |s| over
    tenth-second windows (the last window is the buffer's last tenth), as
    the index of the highest set bit of peak + 1 (0 for silence, 15 for
    full scale), scaled to 0..100: 0 -> 0, 200 -> 43, 32767 -> 93."""
    window = rate // 10
    starts = list(range(0, len(buffer) - window + 1, window))
    if starts and starts[-1] != len(buffer) - window:
        starts.append(len(buffer) - window)
    peak = max((sum(abs(s) for s in buffer[s:s + window]) // window for s in starts), default=0)
    return (((peak + 1).bit_length() - 1) * 100) // 16


def progress_expect(capture, k, rate, buffers=None):
    size = rate // 2
    # The buffers the capture reaches into (at least one).
    count = buffers if buffers is not None else max(1, -(-(len(capture) - k) // size))
    out = []
    for b in range(count):
        lo = k + b * size
        buffer = [capture[i] if 0 <= i < len(capture) else 0 for i in range(lo, lo + size)]
        out.append(loudness(buffer, rate))
    return out


def main(argv):
    if len(argv) == 4 and argv[1] == "decimated-match":
        rec, capture = load(argv[2]), load(argv[3])
        k, bad = decimated_match(rec, capture)
        if k is None:
            print("decimated-match: %s (%d samples) has no sound, or none placed in %s"
                  % (argv[2], len(rec), argv[3]))
            return 1
        nz = first_nonzero(capture)
        where = "no sound in the capture" if nz is None else "%+d samples from its first sound (sample %d)" % (k - nz, nz)
        print("decimated-match: k=%d n=%d mismatches=%d; k is %s" % (k, len(rec), bad, where))
        return 0 if bad == 0 else 1
    if len(argv) == 4 and argv[1] == "played-match":
        speaker, played = load(argv[2]), load(argv[3])
        at = played_match(speaker, played) if len(played) else None
        if at is None:
            print("played-match: %s (%d samples) not found whole in %s (%d samples)"
                  % (argv[3], len(played), argv[2], len(speaker)))
            return 1
        print("played-match: offset=%d n=%d" % (at, len(played)))
        return 0
    if len(argv) == 5 and argv[1] == "progress-expect":
        for value in progress_expect(load(argv[2]), int(argv[3]), int(argv[4])):
            print(value)
        return 0
    sys.stderr.write(__doc__)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
