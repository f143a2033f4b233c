#!/usr/bin/env python3
"""Checks an archive made by sZip against the folder it was made from.

    check_zip.py [--glob GLOB] [--method 0|8] ARCHIVE FOLDER

The archive must hold exactly the regular files of FOLDER that GLOB matches,
in ordinal order of their names, pass ZipFile.testzip, and extract to
byte-identical files. Each entry's DOS date and time is the file's last-write
time in local time (seconds rounded down to even), its extended-timestamp
extra field (0x5455) holds the UTC mtime, a non-ASCII name is UTF-8 with flag
bit 11, non-empty files use METHOD (empty ones are stored), and the local
header agrees with the central directory (CRC, sizes, name, extra field).
"""
import argparse
import fnmatch
import os
import struct
import sys
import tempfile
import time
import zipfile


def fail(message):
    print(f"check_zip: {message}", file=sys.stderr)
    sys.exit(1)


def extra_mtime(extra):
    at = 0
    while at + 4 <= len(extra):
        tag, size = struct.unpack_from("<HH", extra, at)
        if tag == 0x5455 and size >= 5 and extra[at + 4] & 1:
            return struct.unpack_from("<i", extra, at + 5)[0]
        at += 4 + size
    return None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--glob", default="*")
    parser.add_argument("--method", type=int, choices=(0, 8), default=8)
    parser.add_argument("archive")
    parser.add_argument("folder")
    args = parser.parse_args()

    expected = sorted(n for n in os.listdir(args.folder)
                      if os.path.isfile(os.path.join(args.folder, n)) and fnmatch.fnmatch(n, args.glob))
    with zipfile.ZipFile(args.archive) as z, tempfile.TemporaryDirectory() as out:
        bad = z.testzip()
        if bad is not None:
            fail(f"{args.archive}: bad CRC or header in {bad}")
        infos = z.infolist()
        names = [i.filename for i in infos]
        if names != expected:
            fail(f"{args.archive}: entries {names}, expected {expected}")
        z.extractall(out)
        raw = open(args.archive, "rb").read()
        for i in infos:
            source = os.path.join(args.folder, i.filename)
            with open(source, "rb") as f, open(os.path.join(out, i.filename), "rb") as g:
                if f.read() != g.read():
                    fail(f"{i.filename}: extracted bytes differ")
            st = os.stat(source)
            t = time.localtime(st.st_mtime)
            when = (t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec - t.tm_sec % 2)
            if i.date_time != when:
                fail(f"{i.filename}: date/time {i.date_time}, expected {when}")
            if extra_mtime(i.extra) != int(st.st_mtime // 1):
                fail(f"{i.filename}: extended timestamp {extra_mtime(i.extra)}, expected {int(st.st_mtime)}")
            utf8 = 0 if i.filename.isascii() else 0x800
            if i.flag_bits & 0x800 != utf8:
                fail(f"{i.filename}: flag bits {i.flag_bits:#x}")
            method = args.method if st.st_size else 0
            if i.compress_type != method:
                fail(f"{i.filename}: method {i.compress_type}, expected {method}")
            (sig, _, flags, meth, ltime, ldate, crc, csize, usize, nlen, xlen) = \
                struct.unpack_from("<IHHHHHIIIHH", raw, i.header_offset)
            at = i.header_offset + 30
            lname, lextra = raw[at:at + nlen], raw[at + nlen:at + nlen + xlen]
            if (sig, flags, meth, crc, csize, usize, lname, lextra) != \
                    (0x04034b50, i.flag_bits, i.compress_type, i.CRC, i.compress_size, i.file_size,
                     i.filename.encode("utf-8"), i.extra):
                fail(f"{i.filename}: local header differs from the central directory")
    print(f"{args.archive}: {len(infos)} entries ok")


if __name__ == "__main__":
    main()
