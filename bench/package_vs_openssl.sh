#!/usr/bin/env bash
# Session packaging against the same work done by zip and openssl, both ways:
#   1. bench_package.exe packs a realistic session on the device (a few
#      .motr recordings and 20 MB of sound files) and prints its times;
#   2. the same files through `zip -6`, `openssl enc -rc2-cbc` and
#      `openssl dgst -md5 -sign` (one run each, as the device's figure);
#   3. the device's package opened by `ezip open`, against the OpenSSL
#      pipeline reversed on the same package (`openssl pkeyutl -decrypt`,
#      `openssl enc -d`, `openssl dgst -md5 -verify`, `unzip`), best of 3.
#   bench/package_vs_openssl.sh BENCH_PACKAGE_EXE   (scripts/bench runs it)
set -euo pipefail
source "$(dirname "$0")/../scripts/env.sh"
program=${1:?bench_package.exe}
host="$BRENNOCK_BUILD/host"
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-benchpkg.XXXXXX")
trap 'rm -rf "$work"' EXIT
now() { date +%s%N; }
ms() { echo $(( ($2 - $1) / 1000000 )); }

"$host/provision" study "$work/study" >/dev/null
"$host/provision" device "$work/study" --id 65535 --block "$work/study/flashblock.bin" >/dev/null
mkdir -p "$work/disk/Hard Disk"
out=$(BRENNOCK_STUDY="$work/study" "$BRENNOCK_ROOT/scripts/simrun" --no-build --disk "$work/disk" -- "$program" | tr -d '\r')
echo "$out"
device_ms=$(sed -n 's/^session_end_ms=\([0-9]*\).*/\1/p' <<<"$out")

# The same files, zip and openssl.
files="$work/disk/bench-files"
openssl genrsa -out "$work/device.pem" 1024 2>/dev/null
key=$(openssl rand -hex 16)
legacy=(-provider legacy -provider default)
t0=$(now)
(cd "$files" && zip -6 -q "$work/ref.zip" ./*)
t1=$(now)
openssl enc -rc2-cbc -K "$key" -iv 0000000000000000 "${legacy[@]}" -in "$work/ref.zip" -out "$work/ref.enc"
t2=$(now)
openssl dgst -md5 -sign "$work/device.pem" -out "$work/ref.sig" "$work/ref.zip"
t3=$(now)
ref_ms=$(ms "$t0" "$t3")
echo "zip -6: $(ms "$t0" "$t1") ms, openssl enc -rc2-cbc: $(ms "$t1" "$t2") ms, openssl dgst -md5 -sign: $(ms "$t2" "$t3") ms; together ${ref_ms} ms"
echo "packaging on the device: ${device_ms} ms = $(awk -v a="$device_ms" -v b="$ref_ms" 'BEGIN { printf "%.2f", a / b }')x zip + openssl (goal: at most 1.3x)"

# Opening the package: ezip against the OpenSSL pipeline reversed.
package=$(ls "$work/disk/Hard Disk/Device Data/"*.ezip | head -n 1)
python3 - "$package" "$work" <<'PY'
import struct, sys
data = open(sys.argv[1], "rb").read()
k = struct.unpack_from("<I", data, 0)[0]
s = struct.unpack_from("<I", data, 4 + k)[0]
b = struct.unpack_from("<I", data, 8 + k + s)[0]
w = sys.argv[2]
open(w + "/pkg.pub", "wb").write(data[4:4 + k])
open(w + "/pkg.sig", "wb").write(data[8 + k:8 + k + s][::-1])
open(w + "/pkg.signed-head", "wb").write(data[8 + k + s:12 + k + s + b])
open(w + "/pkg.wrapped", "wb").write(data[24 + k + s:12 + k + s + b][::-1])
open(w + "/pkg.cipher", "wb").write(data[12 + k + s + b:])
PY
openssl rsa -pubin -inform MSBLOB -in "$work/pkg.pub" -out "$work/pkg.pub.pem" 2>/dev/null
best_ezip=""; best_ssl=""
for run in 1 2 3; do
  rm -rf "$work/opened" "$work/unzipped"
  t0=$(now)
  "$host/ezip" open "$package" --key "$work/study/server.key.pem" --out "$work/opened" >/dev/null
  t1=$(now)
  session_key=$(openssl pkeyutl -decrypt -inkey "$work/study/server.key.pem" -in "$work/pkg.wrapped" | od -An -tx1 | tr -d ' \n')
  openssl enc -d -rc2-cbc -K "$session_key" -iv 0000000000000000 "${legacy[@]}" -in "$work/pkg.cipher" -out "$work/pkg.zip"
  cat "$work/pkg.signed-head" "$work/pkg.zip" | openssl dgst -md5 -verify "$work/pkg.pub.pem" -signature "$work/pkg.sig" >/dev/null
  unzip -q -o "$work/pkg.zip" -d "$work/unzipped"
  t2=$(now)
  e=$(ms "$t0" "$t1"); o=$(ms "$t1" "$t2")
  if [ -z "$best_ezip" ] || [ "$e" -lt "$best_ezip" ]; then best_ezip=$e; fi
  if [ -z "$best_ssl" ] || [ "$o" -lt "$best_ssl" ]; then best_ssl=$o; fi
done
diff -r "$work/opened" "$work/unzipped" >/dev/null || { echo "ezip and the OpenSSL pipeline unpacked different files"; exit 1; }
echo "opening the package (best of 3): ezip open ${best_ezip} ms, openssl pkeyutl + enc -d + dgst -verify + unzip ${best_ssl} ms" \
     "= $(awk -v a="$best_ezip" -v b="$best_ssl" 'BEGIN { printf "%.2f", a / b }')x (goal: at most 1x)"
