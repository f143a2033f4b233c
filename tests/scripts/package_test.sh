#!/usr/bin/env bash
# Session packaging end to end: a study is provisioned with the study's tools,
# the packaging tests run the control on a disk with the study's key block
# and the compression library, and what they packed is then opened by
# `ezip` and checked with the OpenSSL command line alone. (Which flips and
# which devices a reader refuses is ezip's own test.)
#   package_test.sh HOST_BIN_DIR TEST_PACKAGE_EXE
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
host=${1:?native build directory}
program=${2:?the packaging test program}
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
failures=0
check() {  # check DESCRIPTION COMMAND...
  local what=$1; shift
  if "$@"; then echo "ok   $what"; else echo "FAIL $what"; failures=$((failures + 1)); fi
}

study="$work/study"
"$host/provision" study "$study" >/dev/null || exit 1
"$host/provision" device "$study" --id 65535 --block "$study/flashblock.bin" >/dev/null || exit 1

out="$work/out"
mkdir -p "$work/disk/Hard Disk"
BRENNOCK_STUDY="$study" BRENNOCK_PACKAGE_OUT="$out" \
  "$root/scripts/simrun" --no-build --disk "$work/disk" -- "$program" || exit 1

# The study's reader gives back the session's files byte for byte.
key="$study/server.key.pem"
check "ezip opens the session package" "$host/ezip" open "$out/session.ezip" --key "$key" --out "$work/opened"
motr=$(find "$work/opened" -name '*Tap.motr' | head -n 1)
check "the .motr comes back byte for byte" cmp -s "$out/session.motr" "${motr:-/nonexistent}"
check "Manifest.txt comes back byte for byte" cmp -s "$out/session-Manifest.txt" "$work/opened/Manifest.txt"
check "nothing else is in the package" test "$(ls "$work/opened" | wc -l)" -eq 2

# The packages of several sizes, signed and encrypted as OpenSSL alone reads them.
python3 "$root/tests/scripts/package_check.py" "$key" "$out" || failures=$((failures + 1))

exit $failures
