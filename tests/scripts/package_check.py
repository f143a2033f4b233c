#!/usr/bin/env python3
"""Checks the device's packages with the OpenSSL command line alone.

  package_check.py SERVER_KEY DIR

DIR holds what test_package left: plain-N.bin with plain-N.ezip, and
session.ezip. For each pair the package is taken apart by its field lengths,
the signature is verified with the public key stored at offset 4 over
MD5(B, session key blob, plain text), the session key is unwrapped with the
server's key and the cipher text decrypted; the session package's archive
must pass `unzip -t`. Prints one line per check; exits non-zero on a failure.
"""
import os
import struct
import subprocess
import sys
import tempfile

failures = 0


def check(what, ok, detail=""):
    global failures
    print(("ok   " if ok else "FAIL ") + what + ("" if ok else "  " + detail))
    if not ok:
        failures += 1


def openssl(*args, data=None):
    return subprocess.run(["openssl", *args], input=data, capture_output=True)


def fields(package):
    k = struct.unpack_from("<I", package, 0)[0]
    s = struct.unpack_from("<I", package, 4 + k)[0]
    b = struct.unpack_from("<I", package, 8 + k + s)[0]
    return {
        "public": package[4:4 + k],
        "signature": package[8 + k:8 + k + s],
        "record": package[8 + k + s:12 + k + s + b],  # B and the blob, as hashed
        "blob": package[12 + k + s:12 + k + s + b],
        "cipher": package[12 + k + s + b:],
    }


def open_package(server_key, package, tmp):
    """The plain text, decrypted with OpenSSL; None when it fails."""
    f = fields(package)
    wrapped = f["blob"][12:][::-1]  # after BLOBHEADER and ALG_ID, little-endian
    r = openssl("pkeyutl", "-decrypt", "-inkey", server_key, "-pkeyopt", "rsa_padding_mode:pkcs1", data=wrapped)
    if r.returncode != 0 or len(r.stdout) != 16:
        return None
    args = ["enc", "-d", "-rc2-cbc", "-K", r.stdout.hex(), "-iv", "0" * 16,
            "-provider", "legacy", "-provider", "default"]
    # Whole chunks of 32768 bytes carry no padding.
    if len(f["cipher"]) % 32768 == 0:
        args.append("-nopad")
    r = openssl(*args, data=f["cipher"])
    return r.stdout if r.returncode == 0 else None


def signature_verifies(package, plain, tmp):
    f = fields(package)
    blob, pem, sig, signed = (os.path.join(tmp, n) for n in ("pub.blob", "pub.pem", "sig", "signed"))
    with open(blob, "wb") as out:
        out.write(f["public"])
    if openssl("rsa", "-pubin", "-inform", "MSBLOB", "-in", blob, "-out", pem).returncode != 0:
        return False
    with open(sig, "wb") as out:
        out.write(f["signature"][::-1])
    with open(signed, "wb") as out:
        out.write(f["record"] + plain)
    return openssl("dgst", "-md5", "-verify", pem, "-signature", sig, signed).returncode == 0


def main():
    server_key, folder = sys.argv[1], sys.argv[2]
    with tempfile.TemporaryDirectory() as tmp:
        sizes = sorted(int(n[6:-4]) for n in os.listdir(folder) if n.startswith("plain-") and n.endswith(".bin"))
        check("packages of several sizes were left", len(sizes) >= 4, str(sizes))
        for n in sizes:
            plain = open(os.path.join(folder, "plain-%d.bin" % n), "rb").read()
            package = open(os.path.join(folder, "plain-%d.ezip" % n), "rb").read()
            check("%d bytes: signature over MD5(B, blob, plain) verifies" % n, signature_verifies(package, plain, tmp))
            padded = n if n % 32768 == 0 else (n // 8 + 1) * 8
            check("%d bytes: %d bytes of cipher text" % (n, padded), len(fields(package)["cipher"]) == padded,
                  str(len(fields(package)["cipher"])))
            check("%d bytes: decrypts to the plain text" % n, open_package(server_key, package, tmp) == plain)

        package = open(os.path.join(folder, "session.ezip"), "rb").read()
        archive = open_package(server_key, package, tmp)
        check("the session package decrypts", archive is not None)
        if archive is not None:
            check("the session package's signature verifies", signature_verifies(package, archive, tmp))
            zipped = os.path.join(tmp, "session.zip")
            with open(zipped, "wb") as out:
                out.write(archive)
            r = subprocess.run(["unzip", "-t", zipped], capture_output=True, text=True)
            check("the session archive passes unzip -t", r.returncode == 0, r.stdout + r.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
