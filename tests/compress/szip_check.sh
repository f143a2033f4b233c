#!/usr/bin/env bash
# The Windows sZip tests on a disk prepared here, then the archives they
# leave checked natively. \full is a full disk: a 64 KiB tmpfs as root,
# else its compress.zip.tmp links to /dev/full (SZIP_FULL_DISK says which).
#   szip_check.sh TEST_PROGRAM
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
prog=${1:?the test_compress program}
disk=$(mktemp -d "${TMPDIR:-/tmp}/brennock-szip.XXXXXX")
mounted=0
cleanup() {
  [ $mounted -eq 1 ] && umount -l "$disk/full"
  rm -rf "$disk"
}
trap cleanup EXIT
source "$root/tests/scripts/check.sh"

mkdir -p "$disk/Hard Disk" "$disk/full"
if [ "$(id -u)" -eq 0 ] && mount -t tmpfs -o size=64k brennock-szip-full "$disk/full" 2>/dev/null; then
  mounted=1
  export SZIP_FULL_DISK=tmpfs
else
  ln -s /dev/full "$disk/full/compress.zip.tmp"
  export SZIP_FULL_DISK=devfull
fi
echo "full disk: $SZIP_FULL_DISK"

check "the Windows tests" "$root/scripts/winrun" --no-build --disk "$disk" "$prog"
if [ $mounted -eq 1 ]; then
  check "the full disk holds only the earlier archive" test "$(ls -A "$disk/full")" = compress.zip
fi

checker="$root/tests/compress/check_zip.py"
check "unzip -t compress.zip" unzip -tq "$disk/compress.zip"
check "unzip -t stored.zip" unzip -tq "$disk/stored.zip"
check "zipfile: compress.zip" python3 "$checker" --method 8 "$disk/compress.zip" "$disk/Device Temp"
check "zipfile: stored.zip" python3 "$checker" --method 0 "$disk/stored.zip" "$disk/Device Temp"
check "zipfile: out.zip, without itself or its temporary file" \
  python3 "$checker" --glob a.txt "$disk/self/out.zip" "$disk/self"
check "zipfile: locked.zip, once the file was free" python3 "$checker" "$disk/locked.zip" "$disk/locked"

exit $failures
