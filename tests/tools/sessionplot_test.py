#!/usr/bin/python3
"""scripts/study-side and tools/sessionplot on a session packed here as the
device packs it:  sessionplot_test.py HOST_BIN"""
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
PREFIX = "0000001234_202611240905_"
failed = 0


def check(what, ok, detail=""):
    global failed
    print(("ok   " if ok else "FAIL ") + what + ("" if ok else "\n     " + str(detail).strip()[:2000]))
    failed += not ok


def run(*args, env=None):
    return subprocess.run(list(args), capture_output=True, text=True, env=env)


def packet(*body):
    """A microcontroller packet: its bytes, then the two's complement of their sum."""
    return bytes(body) + bytes([-sum(body) & 0xFF])


def event(code, seconds, *payload):
    """A device event so many seconds after a go at tick 0x200 (1000 Hz)."""
    t = 0x200 + int(seconds * 1000)
    return packet(0x10, 5 + len(payload), t >> 16 & 0xFF, t >> 8 & 0xFF, t & 0xFF, code, *payload)


def pegs_map(seconds, left_in, right_in):
    return event(0x40, seconds, ~((1 << left_in) - 1) & 0xFF, ~((1 << right_in) - 1) & 0xFF)


def motr(packets):
    """The reset note (1000 Hz), the pegs map at tick 0, a go, then packets; and the packets' count."""
    start = [packet(0x11, 0x0D, 0, 0, 0, 0x00, 1, 4, 0, 0x00, 0x00, 0x03, 0xE8, 0), pegs_map(-0.512, 0, 0),
             event(0x20, 0)]
    return b"MOTR" + struct.pack("<H", 256) + b"".join(start + packets), len(start) + len(packets)


def session_files():
    rnd, taps = random.Random(7), []
    for i in range(36):  # alternating taps, one with a bad checksum
        down, t = (0x30 if i % 2 == 0 else 0x34), 0.4 + 0.6 * i + rnd.random() * 0.2
        taps += [event(down, t, 0, rnd.randrange(40, 200)), event(down + 1, t + 0.1, 0, 0x50)]
    taps[21] = taps[21][:-1] + bytes([taps[21][-1] ^ 0x5A])
    pegs = [p for i in range(1, 10) for p in (event(0x30, 1.2 * i - 0.3, 0, 90), pegs_map(1.2 * i, min(i, 5), max(0, i - 5)))]
    pegs += [event(0x3B, 0.5), event(0x3C, 6.0)]
    rate = 11025
    t = np.arange(rate * 6) / rate
    voice = ((t % 1.6 > 0.5) * 9000 * np.sin(2 * np.pi * 180 * t)).astype("<i2").tobytes()
    memory = np.full(2 * 4096, 0xFF, dtype=np.uint8)
    memory[:0x1800] = (90 + 70 * np.sin(np.arange(0x1800) / 400)).astype(np.uint8)
    trem = "TREM Version 1\r\n\r\nSIMWATCH 01\r\nFW 2.10\r\n001800\r\nID -\r\nSTART 241126 0905\r\nData\r\n" + \
        "".join(memory[k:k + 32].tobytes().hex() + "\r\n" for k in range(0, len(memory), 32))
    (tap, tap_rows), (peg, peg_rows) = motr(taps), motr(sorted(pegs, key=lambda p: p[2:5]))
    files = {
        PREFIX + "000Quest.txt": b"Q1-sleep,A3\r\nQ2-tremor,A1\r\n",
        PREFIX + "001Tap.motr": tap,
        PREFIX + "002Pegs.motr": peg,
        # As the control writes it: a 46-byte header with an 18-byte format.
        PREFIX + "004Voice.wav": b"RIFF" + struct.pack("<I", 38 + len(voice)) + b"WAVEfmt " +
        struct.pack("<IHHIIHHH", 18, 1, 1, rate, rate * 2, 2, 16, 0) + b"data" + struct.pack("<I", len(voice)) + voice,
        PREFIX + "005Watch.trem": trem.encode(),
        "Manifest.txt": b"Study: Brennock home movement study (bench)\r\n",
    }
    return files, {"001Tap": tap_rows, "002Pegs": peg_rows}, len(memory)


def openssl(*args, data=None):
    return subprocess.run(["openssl", *args], input=data, capture_output=True, check=True).stdout


def package(files, block, server_pub, tmp):
    """ZIP, RC2-128 in CBC, the session key wrapped for the server, MD5 signed with the block's device key."""
    archive = io.BytesIO()
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as z:
        for name, data in files.items():
            z.writestr(name, data)
    plain, flash = archive.getvalue(), open(block, "rb").read()
    private_blob = flash[3136:3136 + struct.unpack_from("<I", flash, 3132)[0]]
    device_pem = os.path.join(tmp, "device.pem")
    openssl("rsa", "-inform", "MSBLOB", "-out", device_pem, data=private_blob)
    bits = struct.unpack_from("<I", private_blob, 12)[0]
    public_blob = b"\x06" + private_blob[1:8] + b"RSA1" + private_blob[12:20 + bits // 8]
    key = os.urandom(16)
    wrapped = openssl("pkeyutl", "-encrypt", "-pubin", "-inkey", server_pub, "-pkeyopt", "rsa_padding_mode:pkcs1",
                      data=key)
    session_blob = struct.pack("<BBHII", 1, 2, 0, 0x6602, 0xA400) + wrapped[::-1]
    record = struct.pack("<I", len(session_blob)) + session_blob
    cipher = openssl("enc", "-rc2-cbc", "-K", key.hex(), "-iv", "0" * 16, "-provider", "legacy", "-provider",
                     "default", *(["-nopad"] if len(plain) % 32768 == 0 else []), data=plain)
    signature = openssl("dgst", "-md5", "-sign", device_pem, data=record + plain)[::-1]
    return struct.pack("<I", len(public_blob)) + public_blob + struct.pack("<I", len(signature)) + signature + \
        record + cipher


def png_size(path):
    head = open(path, "rb").read(24) if os.path.exists(path) else b""
    return struct.unpack(">II", head[16:24]) if head[:16] == b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR" else None


def lines(path):
    return open(path).read().splitlines()


def main():
    host = os.path.abspath(sys.argv[1])
    env = dict(os.environ, BRENNOCK_HOST_BIN=host)
    study_side = os.path.join(ROOT, "scripts", "study-side")
    tmp = tempfile.mkdtemp(prefix="sessionplot_test.")
    try:
        study, block = os.path.join(tmp, "study"), os.path.join(tmp, "device.flashblock.bin")
        for args in (["study", study], ["device", study, "--id", "1234", "--block", block]):
            subprocess.run([os.path.join(host, "provision"), *args], check=True, capture_output=True)
        files, rows, watch_bytes = session_files()
        ezip, key = os.path.join(tmp, PREFIX[:-1] + ".ezip"), os.path.join(study, "server.key.pem")
        open(ezip, "wb").write(package(files, block, os.path.join(study, "server.pub.pem"), tmp))

        out = os.path.join(tmp, "received")
        r = run(study_side, ezip, "--key", key, "--out", out, env=env)
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

        other = os.path.join(tmp, "other.key.pem")
        openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:3072", "-out", other)
        cut = os.path.join(tmp, "cut.ezip")
        open(cut, "wb").write(open(ezip, "rb").read(300))
        for what, args, code, says in [
            ("another study's key", [ezip, "--key", other, "--out", os.path.join(tmp, "o1")], 1, "study-side: ezip: "),
            ("a truncated package", [cut, "--key", key, "--out", os.path.join(tmp, "o2")], 1, "truncated"),
            ("an output folder in use", [ezip, "--key", key, "--out", os.path.join(out, "files")], 1, "is not empty"),
            ("no --out", [ezip, "--key", key], 2, "usage:"),
        ]:
            r = run(study_side, *args, env=env)
            check(f"study-side refuses {what} with one line", r.returncode == code and r.stdout == "" and
                  len(r.stderr.splitlines()) == 1 and says in r.stderr, f"exit {r.returncode}: {r.stdout}{r.stderr}")

        folders = {"voice": {PREFIX + "004Voice.wav": files[PREFIX + "004Voice.wav"]},
                   "damaged": {PREFIX + "001Tap.motr": b"MOTR\0\1\x11\xEE", PREFIX + "006Echo.wav": b"RIFF" * 6},
                   "empty": {"Manifest.txt": b"", "notes.motr": b"MOTR"}}
        for name, content in folders.items():
            os.makedirs(os.path.join(tmp, name))
            for file, data in content.items():
                open(os.path.join(tmp, name, file), "wb").write(data)
        for what, folder, code, says in [
            ("draws a session with one kind", "voice", 0, ""),
            ("draws the rest and names a damaged recording", "damaged", 1,
             PREFIX + "001Tap.motr: packet 0 at byte 6: bad length byte"),
            ("names a voice file that is none", "damaged", 1, PREFIX + "006Echo.wav: not a RIFF/WAVE file"),
            ("refuses a folder with no session files", "empty", 2, "no session files"),
            ("refuses a folder that is not there", "nowhere", 2, "not a folder"),
        ]:
            target = os.path.join(tmp, folder + ".png")
            r = run("/usr/bin/python3", os.path.join(ROOT, "tools", "sessionplot", "sessionplot.py"),
                    os.path.join(tmp, folder), "-o", target, "--tools", host)
            drawn = png_size(target) is not None and r.stdout.strip() == target if code < 2 else \
                not os.path.exists(target)
            check(f"sessionplot {what}", r.returncode == code and says in r.stderr and drawn,
                  f"exit {r.returncode}: {r.stdout}{r.stderr}")
    finally:
        shutil.rmtree(tmp, ignore_errors=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
