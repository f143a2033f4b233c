#!/usr/bin/env bash
# A soak: whole sessions one after another in one device shell process
# (tests/power/soak.js) for SECONDS, the simulators in fast mode, and what
# the process holds sampled after each session: kernel handles, private
# bytes, GDI and USER objects. The first session is the warm-up (DLLs,
# COM, the wave devices load once); from the sample after it to the last
# the figures must stay within the band:
#   handles +-BAND_HANDLES (default 16), GDI and USER objects and the
#   process's windows +-4, private bytes +BAND_MB MiB (default 4).
# (Under Wine GetGuiResources answers 0; the shell also counts the windows.
# The sample is taken after Close, so the windows read 0 when the managers
# destroyed theirs.)
#
#   soak_test.sh HOST_BIN_DIR SHELL_EXE SECONDS [MAX_SESSIONS]
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
host=${1:?native build directory}
shell=${2:?the device shell}
seconds=${3:?seconds}
max=${4:-1000000}
band_handles=${BAND_HANDLES:-16}
band_mb=${BAND_MB:-4}
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-soak.XXXXXX")
trap 'rm -rf "$work"' EXIT

disk="$work/disk"
"$root/scripts/bench-disk" "$disk" "$work/study" --before 0.5 --speech 1 --after 1.5 || exit 1

"$root/scripts/simrun" --no-build --disk "$disk" --sound "" --watch "--rate fast --seated" \
  -- "$shell" --timeout $((seconds + 120)) --quiet-debug "$root/tests/power/soak.js" "$seconds" "$max" \
  > "$work/soak.out" 2>&1
rc=$?
grep -v '^sample' "$work/soak.out" | tail -n 20
grep '^soak' "$work/soak.out"  # the script's own verdict, above the simulators' logs
python3 - "$work/soak.out" "$rc" "$band_handles" "$band_mb" <<'PY'
import re, sys
out, rc, band_h, band_mb = open(sys.argv[1]).read(), int(sys.argv[2]), int(sys.argv[3]), float(sys.argv[4])
samples = [dict(n=int(m.group(1)), **{k: int(v) for k, v in re.findall(r"(\w+)=(\d+)", m.group(2))})
           for m in re.finditer(r"^sample (\d+) (.*)$", out, re.M)]
done = re.search(r"^soak done (\d+) sessions in (\d+) s", out, re.M)
if rc != 0 or not done or len(samples) < 3:
    print("soak: the run failed (exit %d, %d samples)" % (rc, len(samples)))
    sys.exit(1)
first, last = samples[1], samples[-1]
fmt = lambda s: "after session %d: handles %d, private %.1f MiB, working set %.1f MiB, GDI %d, USER %d, windows %d" % (
    s["n"], s["handles"], s["private"] / 1048576.0, s["workingset"] / 1048576.0, s["gdi"], s["user"], s["windows"])
print("soak: %s sessions in %s s" % done.groups())
print("  start (" + fmt(first) + ")")
print("  end   (" + fmt(last) + ")")
print("  peak private %.1f MiB, handles %d..%d" % (max(s["private"] for s in samples[1:]) / 1048576.0,
      min(s["handles"] for s in samples[1:]), max(s["handles"] for s in samples[1:])))
bands = (("handles", band_h), ("gdi", 4), ("user", 4), ("windows", 4), ("private", band_mb * 1048576))
bad = [k for k, band in bands if abs(last[k] - first[k]) > band and (k != "private" or last[k] > first[k])]
print("soak: flat within the band (handles +-%d, GDI/USER/windows +-4, private +%g MiB)" % (band_h, band_mb) if not bad
      else "soak: FAIL, grew beyond the band: " + ", ".join(bad))
sys.exit(1 if bad else 0)
PY
