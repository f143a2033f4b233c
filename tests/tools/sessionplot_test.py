#!/usr/bin/python3
"""The study's side of a session, end to end on real files:

  sessionplot_test.py HOST_BIN [--keep DIR]

Makes a session's files from their byte formats (sensor recordings, a voice
recording, a watch data file, a questionnaire, the manifest), packs them as
the device does (ZIP, RC2-128 in CBC, the session key wrapped for the
study's server, MD5 signed with the device's key from its provisioned
block; OpenSSL's command line throughout) and runs scripts/study-side on the
package and tools/sessionplot on folders good and bad. --keep DIR leaves the
made session and what study-side wrote there, for a look at the picture.
Runs on Debian's /usr/bin/python3 (matplotlib for the tool it runs).
"""
import io
import os
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import zipfile

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
STUDY_SIDE = os.path.join(ROOT, "scripts", "study-side")
SESSIONPLOT = os.path.join(ROOT, "tools", "sessionplot", "sessionplot.py")
PREFIX = "0000001234_202611240905_"

passed = failed = 0


def check(what, ok, detail=""):
    global passed, failed
    print(("ok   " if ok else "FAIL ") + what + ("" if ok else "\n     " + str(detail).strip()[:2000]))
    if ok:
        passed += 1
    else:
        failed += 1


def run(*args, env=None):
    return subprocess.run(list(args), capture_output=True, text=True, env=env)


# --- session files from their formats ---------------------------------------

def packet(*body):
    """A microcontroller packet: its bytes, then the two's complement of their sum."""
    return bytes(body) + bytes([-sum(body) & 0xFF])


def event(code, seconds, *payload, go=0x200):
    """A device event so many seconds after a go at tick go (1000 Hz)."""
    t = go + int(seconds * 1000)
    return packet(0x10, 5 + len(payload), t >> 16 & 0xFF, t >> 8 & 0xFF, t & 0xFF, code, *payload)


def pegs_map(seconds, left_in, right_in):
    """The first left_in and right_in holes filled (0 bits on the wire)."""
    return event(0x40, seconds, ~((1 << left_in) - 1) & 0xFF, ~((1 << right_in) - 1) & 0xFF)


def motr(*packets):
    """The file: the reset note (1000 Hz), the pegs map at tick 0, a go, then packets."""
    reset = packet(0x11, 0x0D, 0, 0, 0, 0x00, 1, 4, 0, 0x00, 0x00, 0x03, 0xE8, 0)
    start = [reset, pegs_map(-0.512, 0, 0), event(0x20, 0)]  # the map at tick 0, before the go
    return b"MOTR" + struct.pack("<H", 256) + b"".join(start + list(packets)), len(start) + len(packets)


def tapping_test():
    """Alternating taps (left 0x30/0x31, right 0x34/0x35), one with a bad checksum."""
    rnd, out, t = random.Random(7), [], 0.4
    for i in range(36):
        down, up = (0x30, 0x31) if i % 2 == 0 else (0x34, 0x35)
        out += [event(down, t, 0, rnd.randrange(40, 200)), event(up, t + 0.09 + rnd.random() * 0.06, 0, 0x50)]
        t += 0.45 + rnd.random() * 0.25 + (0.01 * i if i > 20 else 0)
    out[21] = out[21][:-1] + bytes([out[21][-1] ^ 0x5A])
    return motr(*out)


def pegs_test():
    """Pegs going in with a tap before each, while the seat sensors (0x38..0x3C) come and go."""
    out = [p for i in range(1, 10) for p in (event(0x30 if i % 2 else 0x34, 1.2 * i - 0.3, 0, 90),
                                             pegs_map(1.2 * i, min(i, 5), max(0, i - 5)))]
    for start, stop, down, up in [(0.5, 6.0, 0x3B, 0x3C), (1.0, 4.5, 0x38, 0x39), (7.5, 13.0, 0x3B, 0x3C)]:
        out += [event(down, start), event(up, stop)]
    return motr(*sorted(out, key=lambda p: p[2:5]))


def wav(rate, seconds):
    """As the control writes it: a 46-byte header with an 18-byte format. Words after a second of room noise."""
    t = np.arange(int(rate * seconds)) / rate
    word = (t > 1.0) & ((t % 1.6) > 0.5) & ((t % 1.6) < 1.2)
    v = word * 0.35 * np.sin(np.pi * ((t % 1.6) - 0.5) / 0.7) ** 2 * (np.sin(2 * np.pi * 180 * t) +
                                                                     0.4 * np.sin(2 * np.pi * 620 * t))
    data = np.clip((v + np.random.default_rng(3).normal(0, 0.002, len(t))) * 32767, -32768, 32767)
    data = data.astype("<i2").tobytes()
    return b"RIFF" + struct.pack("<I", 38 + len(data)) + b"WAVEfmt " + struct.pack("<IHHIIHHH", 18, 1, 1, rate,
                                                                                    rate * 2, 2, 16, 0) + \
        b"data" + struct.pack("<I", len(data)) + data


def trem(log_address=0x1800):
    """A watch's data file: its parameters and the two blocks the control reads for this address."""
    i = np.arange(log_address)
    memory = np.full(2 * 4096, 0xFF, dtype=np.uint8)
    memory[:log_address] = (90 + 70 * np.sin(2 * np.pi * i / 2600) + 40 * np.sin(i * 0.37) ** 8).astype(np.uint8)
    lines = [memory[k:k + 32].tobytes().hex() for k in range(0, len(memory), 32)]
    params = f"\r\nSIMWATCH 01\r\nFW 2.10\r\n{log_address:06X}\r\nID -\r\nSTART 241126 0905"
    return ("TREM Version 1\r\n" + params + "\r\nData\r\n" + "\r\n".join(lines) + "\r\n").encode(), len(memory)


def session_files():
    (tap, tap_rows), (pegs, pegs_rows), (watch, watch_bytes) = tapping_test(), pegs_test(), trem()
    files = {
        PREFIX + "000Quest.txt": b"Q1-sleep,A3\r\nQ2-tremor,A1\r\n",
        PREFIX + "001Tap.motr": tap,
        PREFIX + "002Pegs.motr": pegs,
        PREFIX + "004Voice.wav": wav(11025, 6.0),
        PREFIX + "005Watch.trem": watch,
        "Manifest.txt": b"Study: Brennock home movement study (bench)\r\n",
    }
    return files, {"001Tap": tap_rows, "002Pegs": pegs_rows}, watch_bytes


# --- a package as the device makes it ----------------------------------------

def openssl(*args, data=None):
    r = subprocess.run(["openssl", *args], input=data, capture_output=True)
    if r.returncode != 0:
        raise RuntimeError("openssl " + " ".join(args) + ": " + r.stderr.decode(errors="replace"))
    return r.stdout


def package(files, block, server_pub, tmp):
    archive = io.BytesIO()
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as z:
        for name, data in files.items():
            z.writestr(name, data)
    plain = archive.getvalue()

    with open(block, "rb") as fh:
        flash = fh.read()
    length = struct.unpack_from("<I", flash, 3132)[0]
    private_blob = flash[3136:3136 + length]
    with open(os.path.join(tmp, "device.blob"), "wb") as fh:
        fh.write(private_blob)
    device_pem = os.path.join(tmp, "device.pem")
    openssl("rsa", "-inform", "MSBLOB", "-in", os.path.join(tmp, "device.blob"), "-out", device_pem)
    # The public blob: the private one's header and modulus as type 6, RSA1.
    bits = struct.unpack_from("<I", private_blob, 12)[0]
    public_blob = b"\x06" + private_blob[1:8] + b"RSA1" + private_blob[12:20 + bits // 8]

    key = os.urandom(16)
    wrapped = openssl("pkeyutl", "-encrypt", "-pubin", "-inkey", server_pub, "-pkeyopt", "rsa_padding_mode:pkcs1",
                      data=key)
    session_blob = struct.pack("<BBHI", 1, 2, 0, 0x6602) + struct.pack("<I", 0xA400) + wrapped[::-1]
    record = struct.pack("<I", len(session_blob)) + session_blob
    cipher = openssl("enc", "-rc2-cbc", "-K", key.hex(), "-iv", "0" * 16, "-provider", "legacy", "-provider",
                     "default", *(["-nopad"] if len(plain) % 32768 == 0 else []), data=plain)
    signature = openssl("dgst", "-md5", "-sign", device_pem, data=record + plain)[::-1]
    return struct.pack("<I", len(public_blob)) + public_blob + struct.pack("<I", len(signature)) + signature + \
        record + cipher


def png_size(path):
    with open(path, "rb") as fh:
        head = fh.read(24)
    return struct.unpack(">II", head[16:24]) if head[:16] == b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR" else None


def lines(path):
    with open(path) as fh:
        return fh.read().splitlines()


def main():
    host = os.path.abspath(sys.argv[1])
    keep = sys.argv[3] if sys.argv[2:3] == ["--keep"] else None
    env = dict(os.environ, BRENNOCK_HOST_BIN=host)
    tmp = tempfile.mkdtemp(prefix="sessionplot_test.")
    try:
        study, block = os.path.join(tmp, "study"), os.path.join(tmp, "device.flashblock.bin")
        for args in (["study", study], ["device", study, "--id", "1234", "--block", block]):
            subprocess.run([os.path.join(host, "provision"), *args], check=True, capture_output=True)
        files, rows, watch_bytes = session_files()
        ezip, key = os.path.join(tmp, PREFIX[:-1] + ".ezip"), os.path.join(study, "server.key.pem")
        with open(ezip, "wb") as fh:
            fh.write(package(files, block, os.path.join(study, "server.pub.pem"), tmp))

        # The whole study side on a good package.
        out = os.path.join(tmp, "received")
        r = run(STUDY_SIDE, ezip, "--key", key, "--out", out, env=env)
        check("study-side opens, decodes and draws a package", r.returncode == 0, r.stdout + r.stderr)
        check("it unpacks every file", sorted(os.listdir(os.path.join(out, "files"))) == sorted(files))
        csv = os.path.join(out, "csv", PREFIX)
        for label, count in rows.items():
            got = lines(csv + label + ".csv")
            check(f"{label}: a CSV row for each of its {count} packets",
                  len(got) == count + 1 and got[0].startswith("index,"), f"{len(got)} lines")
        check("the watch's memory and parameters come out", os.path.getsize(csv + "005Watch.bin") == watch_bytes
              and "3,001800" in lines(csv + "005Watch.csv"))
        picture = os.path.join(out, "session.png")
        size = png_size(picture)
        check("the picture is a PNG of a readable size", size and 1000 <= size[0] <= 2000 and
              700 <= size[1] <= 3000 and os.path.getsize(picture) > 30000, size)
        check("it says where the files, the CSVs and the picture are",
              all(p in r.stdout for p in (os.path.join(out, "files"), os.path.join(out, "csv"), picture)), r.stdout)

        # Packages and folders the study side refuses, each with one line.
        other = os.path.join(tmp, "other.key.pem")
        subprocess.run(["openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:3072", "-out", other],
                       check=True, capture_output=True)
        cut = os.path.join(tmp, "cut.ezip")
        with open(ezip, "rb") as src, open(cut, "wb") as dst:
            dst.write(src.read(300))
        full = os.path.join(tmp, "full")
        os.makedirs(full)
        open(os.path.join(full, "x"), "w").close()
        for what, args, code, says in [
            ("another study's key", [ezip, "--key", other, "--out", os.path.join(tmp, "o1")], 1, "study-side: ezip: "),
            ("a truncated package", [cut, "--key", key, "--out", os.path.join(tmp, "o2")], 1, "truncated"),
            ("an output folder in use", [ezip, "--key", key, "--out", full], 1, "is not empty"),
            ("no --out", [ezip, "--key", key], 2, "usage:"),
        ]:
            r = run(STUDY_SIDE, *args, env=env)
            check(f"study-side refuses {what} with one line", r.returncode == code and r.stdout == "" and
                  len(r.stderr.splitlines()) == 1 and says in r.stderr, f"exit {r.returncode}: {r.stdout}{r.stderr}")

        # The picture tool on folders that lack kinds, or hold bad files.
        folders = {"voice": {PREFIX + "004Voice.wav": files[PREFIX + "004Voice.wav"]},
                   "damaged": {PREFIX + "001Tap.motr": b"MOTR\0\1\x11\xEE", PREFIX + "006Echo.wav": b"RIFF" * 6},
                   "empty": {"Manifest.txt": b"", "notes.motr": b"MOTR"}}
        for name, content in folders.items():
            os.makedirs(os.path.join(tmp, name))
            for file, data in content.items():
                with open(os.path.join(tmp, name, file), "wb") as fh:
                    fh.write(data)
        for what, folder, code, says in [
            ("draws a session with one kind", "voice", 0, ""),
            ("draws the rest and names a damaged recording", "damaged", 1,
             PREFIX + "001Tap.motr: packet 0 at byte 6: bad length byte"),
            ("names a voice file that is none", "damaged", 1, PREFIX + "006Echo.wav: not a RIFF/WAVE file"),
            ("refuses a folder with no session files", "empty", 2, "no session files"),
            ("refuses a folder that is not there", "nowhere", 2, "not a folder"),
        ]:
            target = os.path.join(tmp, folder + ".png")
            r = run("/usr/bin/python3", SESSIONPLOT, os.path.join(tmp, folder), "-o", target, "--tools", host)
            drawn = png_size(target) is not None and r.stdout.strip() == target if code < 2 else \
                not os.path.exists(target)
            check(f"sessionplot {what}", r.returncode == code and says in r.stderr and drawn,
                  f"exit {r.returncode}: {r.stdout}{r.stderr}")
        if keep:
            shutil.rmtree(keep, ignore_errors=True)
            shutil.copytree(tmp, keep)
    finally:
        shutil.rmtree(tmp, ignore_errors=True)
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
