#!/usr/bin/env python3
"""Checks sound taken from the bench against the files that made it.

  audio_check.py played-match SPEAKER FILE.wav [--gaps]
      FILE's samples, whole and unchanged, are in the speaker's recording;
      with --gaps, runs of silence between them are allowed and reported (a
      sound server that ran dry plays silence and then goes on).
  audio_check.py recording REC.wav EVENTS CAPTURE.wav RATE
      a START_ON_VOLUME|STOP_ON_VOLUME recording of CAPTURE (the capture
      format at RATE) against the capture and the events the script got.
  audio_check.py stored REC.wav CAPTURE.wav RATE BUFFERS
      a recording without volume flags: BUFFERS half seconds of CAPTURE.
  audio_check.py header FILE.wav      the sizes agree with the length

Samples are 16-bit signed mono; the microphone is silent outside the
capture file, so samples before 0 or past its end count as zero.
"""
import struct
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


def played_with_gaps(speaker, played):
    """(offset, gaps) where every sample of played arrives unchanged and in
    order, with runs of silence inserted between them where the sound server
    ran dry (gaps: (position in played, samples of silence)); (None, None)
    when a sample is lost or changed. Nothing is allowed but inserted zeros."""
    start = next((i for i, v in enumerate(played) if v), None)
    if start is None:
        return None, None
    probe = played[start:start + 32]
    for j in range(len(speaker) - len(probe) + 1):
        if speaker[j] != probe[0] or speaker[j:j + len(probe)] != probe:
            continue
        at = j - start
        if at < 0 or speaker[at:j] != played[:start]:
            continue
        i, k, gaps = 0, at, []
        while i < len(played) and k < len(speaker):
            if speaker[k] == played[i]:
                i, k = i + 1, k + 1
                continue
            if speaker[k] != 0:
                break
            run = k
            while k < len(speaker) and speaker[k] == 0 and speaker[k] != played[i]:
                k += 1
            gaps.append((i, k - run))
        if i == len(played):
            return at, gaps
    return None, None

def buffered_offset(rec, cap, half):
    """Where the recording's first buffer begins in the capture: the file
    holds, for each half-second buffer of the capture from there on, every
    second sample of that buffer (half // 2 of them; an odd buffer's last
    sample is not kept). The microphone is silent outside the capture."""
    kept = half // 2
    if len(rec) % kept:
        return None
    at = lambda i: cap[i] if 0 <= i < len(cap) else 0
    i0 = next((i for i, v in enumerate(rec) if v != 0), None)
    if i0 is None:
        return None
    b0, p = divmod(i0, kept)
    for j in range(len(cap)):
        if cap[j] != rec[i0]:
            continue
        k = j - b0 * half - 2 * p
        if all(at(k + (i // kept) * half + 2 * (i % kept)) == rec[i] for i in range(len(rec))):
            return k
    return None


def wave_header_ok(path):
    """The file's RIFF and data sizes agree with its length (46-byte header)."""
    data = open(path, "rb").read()
    if len(data) < 46 or data[:4] != b"RIFF" or data[8:16] != b"WAVEfmt ":
        return "not a 46-byte-header wave file"
    riff, fmt = struct.unpack_from("<II", data, 4)[0], struct.unpack_from("<I", data, 16)[0]
    if fmt != 18 or data[38:42] != b"data":
        return "format chunk of %d bytes" % fmt
    size = struct.unpack_from("<I", data, 42)[0]
    if riff != len(data) - 8 or size != len(data) - 46:
        return "sizes RIFF %d data %d for a %d-byte file" % (riff, size, len(data))
    return None


def window_averages(buf, window):
    """Averages of |s| over consecutive windows of a buffer, as the recorder
    scans it: a window straddling the end reads zeros past it, and once the
    windows run out one more covers the buffer's last window."""
    n = len(buf)
    padded = list(buf) + [0] * window
    out, start, last = [], 0, False
    while True:
        out.append(sum(abs(s) for s in padded[start:start + window]) // window)
        if last:
            return out
        start += window
        if start > n - 1:
            start, last = n - window, True


def loudness_of(most):
    return ((most + 1).bit_length() - 1) * 100 // 16


def check_recording(rec_path, events_path, capture_path, rate, start=200, stop=150):
    """A START_ON_VOLUME|STOP_ON_VOLUME recording against the capture it
    heard and the events the script got: the half second before the trigger
    kept, the loudness of each buffer, the stop rule. Returns the failures."""
    if wave_header_ok(rec_path):
        return [wave_header_ok(rec_path)]
    if wave.open(rec_path).getframerate() != rate // 2:
        return ["recorded at %d Hz" % wave.open(rec_path).getframerate()]
    rec, cap, half = load(rec_path), load(capture_path), rate // 2
    at = lambda i: cap[i] if 0 <= i < len(cap) else 0
    k = buffered_offset(rec, cap, half)
    if k is None:
        return ["the recording is not every second sample of each half second of the capture"]
    events = [line.split() for line in open(events_path)]
    progress = [(int(e[1]), int(e[2])) for e in events if e[0] == "progress"]
    ended = [int(e[1]) for e in events if e[0] == "recordended"]
    bad = [] if ended == [0] else ["AudioRecordEnded %s, not (0) once" % ended]
    buffers = len(rec) // (half // 2)
    j0 = len(progress) - buffers  # the preroll buffer's event
    if j0 < 0:
        return bad + ["%d progress events for %d stored buffers" % (len(progress), buffers)]
    expected, maxima, minima = [], [], []
    for j in range(len(progress)):
        averages = window_averages([at(k + (j - j0) * half + i) for i in range(half)], rate // 10)
        maxima.append(max(averages))
        minima.append(min(averages))
        expected.append((loudness_of(max(averages)), 0 if j <= j0 else (j - j0 + 1) * half // rate))
    if progress != expected:
        bad.append("progress %s, expected %s" % (progress, expected))
    # The trigger: the first loud buffer after the recording's first.
    trigger = next((j for j in range(1, len(maxima)) if maxima[j] > start), None)
    if trigger != j0 + 1:
        bad.append("stored from buffer %d, the trigger came at %s" % (j0, trigger))
    quiet = next((j for j in range(j0 + 2, len(minima)) if minima[j] < stop), None)
    if quiet is None or len(progress) - 1 != quiet + 2:
        bad.append("ended at buffer %d, quiet first at %s" % (len(progress) - 1, quiet))
    after = (k + buffers * half - (max(i for i in range(len(cap)) if cap[i] != 0) + 1)) / rate
    if not 1.0 <= after <= 1.6:
        bad.append("%.3f s stored after the speech ended" % after)
    return bad


def check_stored(rec_path, capture_path, rate, buffers):
    """A recording without volume flags: so many whole buffers, each every
    second sample of a half second of the capture."""
    if wave_header_ok(rec_path):
        return [wave_header_ok(rec_path)]
    rec, cap, half = load(rec_path), load(capture_path), rate // 2
    if len(rec) != buffers * (half // 2):
        return ["%d samples, not %d buffers of %d" % (len(rec), buffers, half // 2)]
    if buffered_offset(rec, cap, half) is None:
        return ["not every second sample of each half second of the capture"]
    return []


def main(argv):
    command, args = (argv[1], argv[2:]) if len(argv) > 1 else ("", [])
    failures = None
    if command == "played-match" and (args[2:] in ([], ["--gaps"])) and len(args) >= 2:
        speaker, played = load(args[0]), load(args[1])
        at, gaps = played_with_gaps(speaker, played)
        if at is None or (gaps and not args[2:]):
            failures = ["%s (%d samples): not found whole and unchanged in %s (gaps %s)"
                        % (args[1], len(played), args[0], gaps)]
        else:
            print("played-match: offset=%d n=%d, %d run(s) of silence inserted by the sound server %s"
                  % (at, len(played), len(gaps), gaps))
            failures = []
    elif command == "recording" and len(args) == 4:
        failures = check_recording(args[0], args[1], args[2], int(args[3]))
    elif command == "stored" and len(args) == 4:
        failures = check_stored(args[0], args[1], int(args[2]), int(args[3]))
    elif command == "header" and len(args) == 1:
        failures = [p for p in [wave_header_ok(args[0])] if p]
    if failures is None:
        sys.stderr.write(__doc__)
        return 2
    for failure in failures:
        print("%s: %s" % (command, failure))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
