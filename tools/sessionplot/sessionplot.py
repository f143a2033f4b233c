#!/usr/bin/python3
"""One picture of a session, from the folder of an opened package.

  sessionplot.py DIR [-o PNG] [--tools BINDIR]

Draws, stacked:
  - each .motr recording: the finger taps (Digito left and right, pressed
    from down to up), the seat sensors (Capsit) as spans and the pegs board
    as a step line, over the seconds since the test's go as motr2csv gives
    them; these rows share one time axis;
  - the loudness of every .wav (mean |sample| per 0.1 s in dBFS) over the
    seconds from the start of the recording, on the same axis;
  - the memory of every .trem, as trem2bin gives it, over its byte address,
    with the end of the recorded log marked.
A kind the session lacks gets a line saying so. The title names the device
and the session's date and time, taken from the file names.

Writes DIR/session.png unless -o says otherwise and prints the PNG's path.
Exit 0 when everything was drawn; 1 when some file could not be read (it is
named on stderr and in the picture; the rest is still drawn); 2 for usage
errors, a folder that is not there or holds no session files, or a PNG that
cannot be written (one line on stderr).

Runs on Debian's /usr/bin/python3 with python3-matplotlib and python3-numpy;
motr2csv and trem2bin are taken from BINDIR (default: $BRENNOCK_HOST_BIN,
else build/host of this tree).
"""
import argparse
import csv
import io
import os
import re
import struct
import subprocess
import sys
import tempfile
from collections import Counter
from datetime import datetime

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

NAME = re.compile(r"^(\d{10})_(\d{12})_(\d{3})(.*)\.(motr|wav|trem|txt)$", re.IGNORECASE)
LOUDNESS_WINDOW_S = 0.1
SILENCE_DB = -96.0
WATCH_MEAN_BYTES = 256


class Unreadable(Exception):
    """A session file that cannot be drawn; the text says why."""


class SessionFile:
    def __init__(self, path, m):
        self.path = path
        self.name = os.path.basename(path)
        self.device, self.stamp, self.seq, test, self.kind = m.groups()
        self.kind = self.kind.lower()
        self.label = self.seq + test  # "003Tap", as the files are told apart


def find_session_files(folder):
    files = []
    for entry in sorted(os.listdir(folder)):
        m = NAME.match(entry)
        if m and os.path.isfile(os.path.join(folder, entry)):
            files.append(SessionFile(os.path.join(folder, entry), m))
    return files


def run_tool(tool, args):
    """Runs one of the study tools; its own one-line complaint on failure,
    without the tool's and the file's names in front."""
    try:
        r = subprocess.run([tool, *args], capture_output=True, text=True)
    except OSError as e:
        raise Unreadable(f"cannot run {tool}: {e.strerror}")
    if r.returncode != 0:
        lines = (r.stderr or r.stdout).strip().splitlines()
        if not lines:
            raise Unreadable(f"{os.path.basename(tool)} exit {r.returncode}")
        why = lines[-1]
        for prefix in (os.path.basename(tool) + ": ", args[0] + ": "):
            why = why[len(prefix):] if why.startswith(prefix) else why
        raise Unreadable(why)
    return r.stdout


# --- .motr -----------------------------------------------------------------

class Recording:
    """What one .motr shows over the time since go."""

    def __init__(self):
        self.taps = {"left": [], "right": []}     # (down s, up s or None)
        self.seat = {"left": [], "right": []}     # (from s, to s)
        self.pegs = []                            # (s, pegs in left, pegs in right)
        self.end = 0.0
        self.packets = 0
        self.flagged = 0
        self.before_go = 0
        self.tick_hz = None


def read_motr(motr2csv, path):
    rows = list(csv.DictReader(io.StringIO(run_tool(motr2csv, [path]))))
    rec = Recording()
    rec.packets = len(rows)
    pressed = {"left": None, "right": None}
    sat = {"left": None, "right": None}
    pegs_now = None
    for row in rows:
        event = row["event"]
        if row["problem"]:
            rec.flagged += 1
            continue
        if event == "HC08Reset":
            rec.tick_hz = row["tick_hz"]
        if row["ms_since_go"] == "":
            rec.before_go += 1
            if event == "PegsMap":  # the board as it stood at the start
                pegs_now = (bin(int(row["pegs_left"])).count("1"), bin(int(row["pegs_right"])).count("1"))
            continue
        t = float(row["ms_since_go"]) / 1000.0
        rec.end = max(rec.end, t)
        m = re.fullmatch(r"(Digito|Capsit)(Left|Right)(Downward|Upward|Down|Up)", event)
        if m:
            side = m.group(2).lower()
            down = m.group(3).startswith("Down")
            if m.group(1) == "Digito":
                if down:
                    if pressed[side] is not None:  # a down with no up between
                        rec.taps[side].append((pressed[side], None))
                    pressed[side] = t
                elif pressed[side] is not None:
                    rec.taps[side].append((pressed[side], t))
                    pressed[side] = None
            elif down:
                if sat[side] is None:
                    sat[side] = t
            else:
                rec.seat[side].append((0.0 if sat[side] is None else sat[side], t))
                sat[side] = None
        elif event == "PegsMap":
            if not rec.pegs and pegs_now is not None:
                rec.pegs.append((0.0, *pegs_now))
            pegs_now = (bin(int(row["pegs_left"])).count("1"), bin(int(row["pegs_right"])).count("1"))
            rec.pegs.append((t, *pegs_now))
    for side in ("left", "right"):
        if pressed[side] is not None:
            rec.taps[side].append((pressed[side], None))
        if sat[side] is not None:
            rec.seat[side].append((sat[side], rec.end))
    if rec.pegs:
        rec.pegs.append((rec.end, *rec.pegs[-1][1:]))
    return rec


def draw_motr(ax, f, rec):
    tapped = rec.taps["left"] or rec.taps["right"]
    sat = rec.seat["left"] or rec.seat["right"]
    rows = []
    if tapped or not sat:
        rows += [("Digito L", "taps", "left"), ("Digito R", "taps", "right")]
    if sat:
        rows += [("Capsit L", "seat", "left"), ("Capsit R", "seat", "right")]
    if not (tapped or sat or rec.pegs):
        ax.text(0.5, 0.5, "no taps, seat or pegs events after the go", transform=ax.transAxes, ha="center",
                va="center", fontsize=9, color="0.4")
    colours = {"left": "tab:blue", "right": "tab:orange"}
    labels = []
    for y, (name, what, side) in enumerate(reversed(rows)):
        if what == "taps":
            taps = rec.taps[side]
            downs = [d for d, _ in taps]
            held = [(d, u - d) for d, u in taps if u is not None]
            ax.broken_barh(held, (y - 0.18, 0.36), color=colours[side], alpha=0.35, linewidth=0)
            ax.plot(downs, [y] * len(downs), "|", color=colours[side], markersize=14, markeredgewidth=1.6)
            labels.append(f"{name} ({len(taps)})")
        else:
            spans = rec.seat[side]
            ax.broken_barh([(a, b - a) for a, b in spans], (y - 0.3, 0.6), color="tab:green", alpha=0.45)
            labels.append(f"{name} ({len(spans)})")
    ax.set_yticks(range(len(rows)), labels, fontsize=8)
    ax.set_ylim(-0.6, len(rows) - 0.4)
    ax.grid(axis="x", alpha=0.3)
    facts = [f"{rec.packets} packets"]
    if rec.tick_hz:
        facts.append(f"ticks at {rec.tick_hz} Hz")
    if rec.flagged:
        facts.append(f"{rec.flagged} flagged, left out")
    if rec.before_go == rec.packets - rec.flagged:
        facts.append("no TimerGo: nothing to place in time")
    ax.set_title(f"{f.label}   {f.name}   ({', '.join(facts)})", loc="left", fontsize=9)
    if rec.pegs:
        twin = ax.twinx()
        t = [p[0] for p in rec.pegs]
        twin.step(t, [p[1] for p in rec.pegs], where="post", color="tab:purple", linewidth=1.2, label="pegs in, left")
        twin.step(t, [p[2] for p in rec.pegs], where="post", color="tab:brown", linewidth=1.2,
                  linestyle="--", label="pegs in, right")
        top = max(max(p[1], p[2]) for p in rec.pegs)
        twin.set_ylim(-0.5, max(top, 1) + 0.5)
        twin.set_ylabel("pegs in", fontsize=8)
        twin.tick_params(labelsize=8)
        twin.legend(loc="upper right", fontsize=7, framealpha=0.8)


# --- .wav ------------------------------------------------------------------

def read_wav(path):
    """(rate, samples): 16-bit mono PCM with any fmt size and chunk order."""
    try:
        with open(path, "rb") as fh:
            data = fh.read()
    except OSError as e:
        raise Unreadable(e.strerror)
    if len(data) < 12 or data[:4] != b"RIFF" or data[8:12] != b"WAVE":
        raise Unreadable("not a RIFF/WAVE file")
    pos, rate, pcm, has_data = 12, None, bytearray(), False
    while pos + 8 <= len(data):
        cid, size = data[pos:pos + 4], struct.unpack_from("<I", data, pos + 4)[0]
        body = data[pos + 8:pos + 8 + size]
        if len(body) < size:
            raise Unreadable(f"the {cid.decode('latin-1')!r} chunk at byte {pos} is cut short")
        if cid == b"fmt ":
            if size < 14:
                raise Unreadable(f"a format of {size} bytes")
            tag, channels, rate = struct.unpack_from("<HHI", body, 0)
            bits = struct.unpack_from("<H", body, 14)[0] if size >= 16 else 0
            if tag != 1 or channels != 1 or bits != 16:
                raise Unreadable(f"format {tag}, {channels} channel(s), {bits} bits: not 16-bit mono PCM")
        elif cid == b"data":
            if rate is None:
                raise Unreadable("data before the format")
            pcm += body
            has_data = True
        pos += 8 + size
    if pos < len(data):
        raise Unreadable(f"the chunk header at byte {pos} is cut short")
    if rate is None:
        raise Unreadable("no format chunk")
    if not has_data:
        raise Unreadable("no data chunk")
    if rate == 0:
        raise Unreadable("a sample rate of 0")
    return rate, np.frombuffer(bytes(pcm[:len(pcm) // 2 * 2]), dtype="<i2")


def loudness(rate, samples):
    """Seconds at each window's start and its mean |sample| in dBFS."""
    step = max(1, int(round(rate * LOUDNESS_WINDOW_S)))
    n = len(samples) // step
    if n == 0:
        return np.zeros(0), np.zeros(0)
    mean = np.abs(samples[:n * step].astype(np.float64)).reshape(n, step).mean(axis=1)
    with np.errstate(divide="ignore"):
        db = np.maximum(20 * np.log10(mean / 32768.0), SILENCE_DB)
    return np.arange(n) * step / rate, db


def draw_wavs(ax, waves):
    for f, rate, samples in waves:
        t, db = loudness(rate, samples)
        ax.plot(t, db, linewidth=1.1, drawstyle="steps-post",
                label=f"{f.label}  {rate} Hz, {len(samples) / rate:.1f} s")
    ax.set_ylim(SILENCE_DB - 4, 3)
    ax.set_ylabel("dBFS", fontsize=8)
    ax.tick_params(labelsize=8)
    ax.grid(alpha=0.3)
    ax.legend(loc="upper right", fontsize=7, framealpha=0.8)
    ax.set_title(f"Voice: mean |sample| per {LOUDNESS_WINDOW_S:g} s, seconds from the start of each recording",
                 loc="left", fontsize=9)


# --- .trem -----------------------------------------------------------------

def read_trem(trem2bin, path, scratch):
    memory = os.path.join(scratch, "memory.bin")
    params = os.path.join(scratch, "params.csv")
    run_tool(trem2bin, [path, "-o", memory, "--csv", params])
    with open(memory, "rb") as fh:
        data = np.frombuffer(fh.read(), dtype=np.uint8)
    with open(params, newline="", encoding="latin-1") as fh:
        fields = {row["field"]: row["text"] for row in csv.DictReader(fh)}
    address = int(fields.get("3", "0"), 16)
    logged = 0 if address & 0x800000 else address
    name = fields.get("1", "").strip()
    return data, min(logged, len(data)), name


def draw_trem(ax, f, data, logged, watch):
    x = np.arange(len(data))
    ax.plot(x[:logged], data[:logged], linewidth=0.5, color="tab:blue", alpha=0.45, label="recorded log, byte by byte")
    if logged >= WATCH_MEAN_BYTES:
        n = logged // WATCH_MEAN_BYTES
        means = data[:n * WATCH_MEAN_BYTES].reshape(n, WATCH_MEAN_BYTES).mean(axis=1)
        ax.step(np.arange(n + 1) * WATCH_MEAN_BYTES, np.append(means, means[-1]), where="post", color="navy",
                linewidth=1.6, label=f"mean per {WATCH_MEAN_BYTES} bytes")
    if logged < len(data):
        ax.plot(x[logged:], data[logged:], linewidth=0.6, color="0.65", label="after the log end (read, not recorded)")
    ax.axvline(logged, color="tab:red", linestyle="--", linewidth=1, label="log end")
    ax.set_xlim(0, max(len(data), 1))
    ax.set_ylim(-8, 263)
    ax.set_ylabel("byte value", fontsize=8)
    ax.set_xlabel("byte address in the watch's memory", fontsize=8)
    ax.tick_params(labelsize=8)
    ax.grid(alpha=0.3)
    ax.legend(loc="center right", fontsize=7, framealpha=0.9)
    ax.set_title(f"{f.label}   {f.name}   ({watch or 'watch'}: {len(data)} bytes read, "
                 f"log end 0x{logged:06X})", loc="left", fontsize=9)


# --- the picture -----------------------------------------------------------

def session_title(files):
    devices = sorted({f.device for f in files})
    stamps = sorted({f.stamp for f in files})

    def when(stamp):
        try:
            return datetime.strptime(stamp, "%Y%m%d%H%M").strftime("%a %d %b %Y %H:%M")
        except ValueError:
            return stamp
    times = when(stamps[0]) + (f" to {when(stamps[-1])}" if len(stamps) > 1 else "")
    return f"Device {', '.join(devices)}   session {times}"


def note_axes(fig, cell, text, colour="0.35"):
    ax = fig.add_subplot(cell)
    ax.axis("off")
    ax.text(0.0, 0.5, text, transform=ax.transAxes, fontsize=9, color=colour, va="center", wrap=True)
    return ax


def draw(files, tools, out):
    motr2csv = os.path.join(tools, "motr2csv")
    trem2bin = os.path.join(tools, "trem2bin")
    problems = []
    recordings, waves, watches = [], [], []
    with tempfile.TemporaryDirectory(prefix="sessionplot.") as scratch:
        for f in files:
            try:
                if f.kind == "motr":
                    recordings.append((f, read_motr(motr2csv, f.path)))
                elif f.kind == "wav":
                    waves.append((f, *read_wav(f.path)))
                elif f.kind == "trem":
                    watches.append((f, *read_trem(trem2bin, f.path, scratch)))
            except Unreadable as e:
                problems.append((f, str(e)))

    # One row of the grid per recording, one for the voice, one per watch
    # file; a kind the session lacks gets a short note row instead.
    rows = []
    bad = {f.kind for f, _ in problems}
    rows += [("motr", r, 1.0 + 0.4 * bool((r[1].taps["left"] or r[1].taps["right"]) and
                                          (r[1].seat["left"] or r[1].seat["right"]))) for r in recordings] \
        or [("note", "No sensor recordings (.motr) in this session" if "motr" not in bad
             else "No sensor recording could be read", 0.3)]
    rows += [("wav", waves, 1.6)] if waves else \
        [("note", "No voice recordings (.wav) in this session" if "wav" not in bad
          else "No voice recording could be read", 0.3)]
    rows += [("trem", w, 1.5) for w in watches] or \
        [("note", "No watch data (.trem) in this session" if "trem" not in bad
          else "No watch data could be read", 0.3)]
    others = [f for f in files if f.kind == "txt"]
    if others:
        rows.append(("footer", ("Questionnaires: " + ", ".join(f"{f.label} ({answers(f.path)})" for f in others),
                                "black"), 0.3))
    if problems:
        rows.append(("footer", ("\n".join(f"NOT READ: {f.name}: {why}" for f, why in problems), "firebrick"),
                     0.22 * len(problems) + 0.1))

    heights = [h for _, _, h in rows]
    fig = plt.figure(figsize=(13, 1.0 + 1.45 * sum(heights)), dpi=100, layout="constrained")
    grid = fig.add_gridspec(len(rows), 1, height_ratios=heights)
    fig.suptitle(session_title(files), fontsize=13, fontweight="bold", x=0.01, ha="left")
    time_axes = []
    shared = None
    for i, (what, item, _) in enumerate(rows):
        if what in ("motr", "wav"):
            ax = fig.add_subplot(grid[i], sharex=shared)
            shared = shared or ax
            time_axes.append(ax)
            if what == "motr":
                draw_motr(ax, *item)
            else:
                draw_wavs(ax, item)
        elif what == "trem":
            draw_trem(fig.add_subplot(grid[i]), *item)
        elif what == "note":
            note_axes(fig, grid[i], item)
        else:
            note_axes(fig, grid[i], *item)
    if time_axes:
        for ax in time_axes[:-1]:
            ax.tick_params(labelbottom=False)
        time_axes[-1].set_xlabel("seconds (recordings: since the test's go; voice: since its start)", fontsize=8)
        for ax in time_axes:
            ax.tick_params(axis="x", labelsize=8)
        left, right = shared.get_xlim()
        shared.set_xlim(min(left, 0), max(right, 1))
    fig.savefig(out)
    plt.close(fig)
    return problems


def answers(path):
    try:
        with open(path, "rb") as fh:
            n = sum(1 for line in fh.read().splitlines() if line.strip())
    except OSError:
        return "unreadable"
    return f"{n} answer{'s' if n != 1 else ''}"


def default_tools():
    here = os.path.dirname(os.path.abspath(__file__))
    return os.environ.get("BRENNOCK_HOST_BIN") or os.path.join(here, "..", "..", "build", "host")


def main(argv):
    p = argparse.ArgumentParser(prog="sessionplot", description="One PNG of a session from an opened package.")
    p.add_argument("folder", help="the folder 'ezip open' unpacked")
    p.add_argument("-o", "--out", help="the PNG to write (default: FOLDER/session.png)")
    p.add_argument("--tools", default=default_tools(), help="the folder holding motr2csv and trem2bin")
    a = p.parse_args(argv)

    if not os.path.isdir(a.folder):
        print(f"sessionplot: {a.folder}: not a folder", file=sys.stderr)
        return 2
    try:
        files = find_session_files(a.folder)
    except OSError as e:
        print(f"sessionplot: {a.folder}: {e.strerror}", file=sys.stderr)
        return 2
    if not any(f.kind in ("motr", "wav", "trem") for f in files):
        print(f"sessionplot: {a.folder}: no session files (.motr, .wav or .trem named DEVICE_YYYYMMDDHHMM_NNNTest)",
              file=sys.stderr)
        return 2
    out = a.out or os.path.join(a.folder, "session.png")
    try:
        problems = draw(files, a.tools, out)
    except OSError as e:
        print(f"sessionplot: {out}: {e.strerror}", file=sys.stderr)
        return 2
    for f, why in problems:
        print(f"sessionplot: {f.path}: {why}", file=sys.stderr)
    print(out)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
