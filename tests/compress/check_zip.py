#!/usr/bin/env python3
"""check_zip.py [--glob GLOB] [--method 0|8] ARCHIVE FOLDER: an sZip archive
against the folder it was made from."""
import argparse
import fnmatch
import os
import struct
import sys
import time
import zipfile


def extra_mtime(extra):
    """The UTC mtime of an extended-timestamp extra field, or None."""
    at = 0
    while at + 4 <= len(extra):
        tag, size = struct.unpack_from("<HH", extra, at)
        if tag == 0x5455 and size >= 5 and extra[at + 4] & 1:
            return struct.unpack_from("<i", extra, at + 5)[0]
        at += 4 + size
    return None


def problems(archive, folder, glob, method):
    expected = sorted(n for n in os.listdir(folder)
                      if os.path.isfile(os.path.join(folder, n)) and fnmatch.fnmatch(n, glob))
    with zipfile.ZipFile(archive) as z:
        names = [i.filename for i in z.infolist()]
        if names != expected:
            yield f"entries {names}, expected {expected}"
            return
        raw = open(archive, "rb").read()
        for i in z.infolist():
            source = os.path.join(folder, i.filename)
            if open(source, "rb").read() != z.read(i):
                yield f"{i.filename}: extracted bytes differ"
            st = os.stat(source)
            t = time.localtime(st.st_mtime)
            when = (t.tm_year, t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec - t.tm_sec % 2)
            if i.date_time != when:
                yield f"{i.filename}: date/time {i.date_time}, expected {when}"
            if extra_mtime(i.extra) != int(st.st_mtime // 1):
                yield f"{i.filename}: extended timestamp {extra_mtime(i.extra)}, expected {int(st.st_mtime)}"
            if i.flag_bits & 0x800 != (0 if i.filename.isascii() else 0x800):
                yield f"{i.filename}: flag bits {i.flag_bits:#x}"
            if i.compress_type != (method if st.st_size else 0):
                yield f"{i.filename}: method {i.compress_type}"
            (sig, _, flags, meth, _, _, crc, csize, usize, nlen, xlen) = \
                struct.unpack_from("<IHHHHHIIIHH", raw, i.header_offset)
            at = i.header_offset + 30
            if (sig, flags, meth, crc, csize, usize, raw[at:at + nlen], raw[at + nlen:at + nlen + xlen]) != \
                    (0x04034b50, i.flag_bits, i.compress_type, i.CRC, i.compress_size, i.file_size,
                     i.filename.encode("utf-8"), i.extra):
                yield f"{i.filename}: local header differs from the central directory"


def main():
    parser = argparse.ArgumentParser()
    for name, kw in (("--glob", dict(default="*")), ("--method", dict(type=int, choices=(0, 8), default=8)),
                     ("archive", {}), ("folder", {})):
        parser.add_argument(name, **kw)
    args = parser.parse_args()
    found = list(problems(args.archive, args.folder, args.glob, args.method))
    for problem in found:
        print(f"check_zip: {args.archive}: {problem}", file=sys.stderr)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
