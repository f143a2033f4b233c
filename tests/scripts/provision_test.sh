#!/usr/bin/env bash
# A bench disk provisioned as the README shows it, run through the main job.
#   provision_test.sh HOST_BIN_DIR
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
host=${1:?native build directory}
disk=$(mktemp -d "${TMPDIR:-/tmp}/brennock-bench.XXXXXX")
trap 'rm -rf "$disk"' EXIT
source "$root/tests/scripts/check.sh"

cp -R "$root/examples/disk/." "$disk/"
"$host/nvimage" --device-id 1234 --prev "Mon 05 Jan 2026 09:30:00" --picture 7 \
  "$disk/Hard Disk/simnvram.bin" || exit 1
check "nvimage reads back what it wrote" \
  grep -q "^DEVICEID: *0000001234$" <("$host/nvimage" --dump "$disk/Hard Disk/simnvram.bin")

out=$("$root/scripts/simrun" --no-build --disk "$disk" -- cscript //nologo "$root/examples/hello.js" | tr -d '\r')
echo "$out"
check "Open on the provisioned disk" grep -q "^Open() returned 1$" <<<"$out"
check "the device ID from the simulation file" grep -q "^device ID: *0000001234$" <<<"$out"
check "the previous session from the simulation file" \
  grep -q "^previous session: *Mon 05 Jan 2026 09:30:00$" <<<"$out"
check "the microcontroller link takes the noise command" grep -q "^noise masking: *on$" <<<"$out"
check "a parameter only the UI uses" grep -q "^study site: *Bench 1$" <<<"$out"
check "the next window opens at the provisioned hour" \
  grep -Eq "^next session opens: [A-Z][a-z]{2} [0-9]{2} [A-Z][a-z]{2} [0-9]{4} 09:00:00$" <<<"$out"
check "and lasts SessionWindowHours" \
  grep -Eq "^next session ends:  [A-Z][a-z]{2} [0-9]{2} [A-Z][a-z]{2} [0-9]{4} 12:00:00$" <<<"$out"
# The login file: device ID little-endian, then the key blob's first bytes.
check "the login file" cmp -s <(printf '\xd2\x04\x00\x00Bren') "$disk/Hard Disk/SrvrInfo.bin"
check "no flash image written without a change" test ! -e "$disk/Hard Disk/flashblock.bin"

exit $failures
