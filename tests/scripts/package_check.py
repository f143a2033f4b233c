#!/usr/bin/env python3
"""package_check.py SERVER_KEY DIR: the device's packages, with the OpenSSL command line alone.

DIR holds plain-N.bin with plain-N.ezip. The signature must verify with the public key at offset 4 over
MD5(B, session key blob, plain text); the cipher text must decrypt, with the session key unwrapped by the
server's key, to the plain text. One line per check; exits non-zero on a failure.
"""
import os, struct, subprocess, sys, tempfile


def openssl(*args, data=None):
    return subprocess.run(["openssl", *args], input=data, capture_output=True)


def check(server_key, package, plain, tmp):
    k = struct.unpack_from("<I", package, 0)[0]
    s = struct.unpack_from("<I", package, 4 + k)[0]
    b = struct.unpack_from("<I", package, 8 + k + s)[0]
    blob, cipher = package[12 + k + s:12 + k + s + b], package[12 + k + s + b:]
    files = {n: os.path.join(tmp, n) for n in ("pub.blob", "pub.pem", "sig", "signed")}
    for name, data in (("pub.blob", package[4:4 + k]), ("sig", package[8 + k:8 + k + s][::-1]),
                       ("signed", package[8 + k + s:12 + k + s + b] + plain)):
        open(files[name], "wb").write(data)
    signed = (openssl("rsa", "-pubin", "-inform", "MSBLOB", "-in", files["pub.blob"], "-out", files["pub.pem"])
              .returncode == 0 and
              openssl("dgst", "-md5", "-verify", files["pub.pem"], "-signature", files["sig"], files["signed"])
              .returncode == 0)
    # The RC2 key after BLOBHEADER and ALG_ID, little-endian; whole chunks of
    # 32768 bytes carry no padding.
    r = openssl("pkeyutl", "-decrypt", "-inkey", server_key, "-pkeyopt", "rsa_padding_mode:pkcs1", data=blob[12:][::-1])
    decrypted = None
    if r.returncode == 0 and len(r.stdout) == 16:
        r = openssl("enc", "-d", "-rc2-cbc", "-K", r.stdout.hex(), "-iv", "0" * 16, "-provider", "legacy",
                    "-provider", "default", *(["-nopad"] if len(cipher) % 32768 == 0 else []), data=cipher)
        decrypted = r.stdout if r.returncode == 0 else None
    return signed, decrypted == plain


def main():
    server_key, folder = sys.argv[1], sys.argv[2]
    with tempfile.TemporaryDirectory() as tmp:
        sizes = sorted(int(n[6:-4]) for n in os.listdir(folder) if n.startswith("plain-") and n.endswith(".bin"))
        results = [("packages of several sizes were left", len(sizes) >= 4)]
        for n in sizes:
            plain = open(os.path.join(folder, "plain-%d.bin" % n), "rb").read()
            package = open(os.path.join(folder, "plain-%d.ezip" % n), "rb").read()
            signed, decrypts = check(server_key, package, plain, tmp)
            results += [("%d bytes: signature over MD5(B, blob, plain) verifies" % n, signed),
                        ("%d bytes: decrypts to the plain text" % n, decrypts)]
    for what, ok in results:
        print(("ok   " if ok else "FAIL ") + what)
    return 0 if all(ok for _, ok in results) else 1


if __name__ == "__main__":
    sys.exit(main())
