#!/usr/bin/env bash
# The device shell on the small scripts in tests/shell: exit codes and lines.
#   tests/scripts/shell_test.sh build/brennock-shell.exe
set -uo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
shell_exe="${1:?usage: shell_test.sh SHELL.EXE}"
dir="$root/tests/shell"
work=$(mktemp -d "${TMPDIR:-/tmp}/brennock-shelltest.XXXXXX")
trap 'rm -rf "$work"' EXIT

failures=0
fail() { echo "FAIL $case: $*"; failures=$((failures + 1)); }

# shell CASE [--plain (no simulators)] SHELL-ARGS...: sets rc, out and err.
shell() {
  case="$1"; shift
  local runner=("$root/scripts/simrun" --no-build --disk-from "$root/examples/disk" --)
  if [ "${1:-}" = "--plain" ]; then runner=("$root/scripts/winrun" --no-build); shift; fi
  "${runner[@]}" "$shell_exe" "$@" >"$work/out" 2>"$work/err"
  rc=$?
  out=$(tr -d '\r' <"$work/out")
  # The simulators' logs follow a failed run; they are not the shell's.
  err=$(tr -d '\r' <"$work/err" | sed '/^--- end of the .* log/,$d')
  echo "ran  $case: exit $rc"
}
expect_rc() { [ "$rc" -eq "$1" ] || fail "exit code $rc, expected $1"; }
expect_out() { local l; for l; do grep -Eq -- "^$l\$" <<<"$out" || fail "no output line /$l/ in:"$'\n'"$out"; done; }
expect_err() { grep -Eq -- "^$1\$" <<<"$err" || fail "no error line /$1/ in:"$'\n'"$err"; }
expect_no_err() { ! grep -Eq -- "$1" <<<"$err" || fail "unexpected error line /$1/"; }
expect_order() {
  local a b
  a=$(grep -nx -- "$1" <<<"$out" | head -n1 | cut -d: -f1)
  b=$(grep -nx -- "$2" <<<"$out" | head -n1 | cut -d: -f1)
  [ -n "$a" ] && [ -n "$b" ] && [ "$a" -lt "$b" ] || fail "\"$1\" does not come before \"$2\""
}
at() { echo "Z:.*\\\\$1"; }   # a script as Wine names it in an error line

shell events.js --quiet-debug --timeout 30 "$dir/events.js" alpha "two words"
expect_rc 7
expect_out "args 2 alpha \[two words\]" "open 1" "HC08Reset 1 0 0 1000 0 number" "TimerGo 1234" "PegsMap 10 3 5" \
  "type 80020005 Brennock.TimerStart: Type mismatch \(0x80020005\)" \
  "count 8002000e Brennock.TimerStart: Wrong number of arguments \(0x8002000E\)" \
  "fail 80004005 Brennock.SessionStart: Unspecified error \(0x80004005\)" \
  "shell 8002000b Shell.Arguments: no argument 5 \(there are 2\)"
expect_order "TimerEnded 0 1" "slept"
expect_order "CapsitLeftDown from the line" "TimerEnded 0 2"
expect_err "brennock-shell: the script left the control open; closing it"

shell events.vbs --quiet-debug --timeout 30 "$dir/events.vbs" one
expect_rc 0
expect_out "open 1 one 1" "PegsMap 99 6 1" "DigitoRightUpward 70000 10 Long" "HC08Reset 3 7 2 500 5 Double" \
  "values 13 5" "type 80020005 Brennock.TimerStart: Type mismatch \(0x80020005\)" "put 80004005" \
  "SessionEnded 103" "TimerEnded 0 3"

for quit in 0 4; do
  shell "errors.js Quit($quit)" --quiet-debug --timeout 30 "$dir/errors.js" $quit
  expect_rc $((quit == 0 ? 1 : quit))
  expect_err "$(at errors.js):4:47: Object expected"
  expect_out "handled 2"
done

shell syntax.js --plain "$dir/syntax.js"
expect_rc 1
expect_err "$(at syntax.js):2:9: Syntax error"
[ -z "$out" ] || fail "a script that does not compile ran: $out"
shell syntax.vbs --plain "$dir/syntax.vbs"
expect_rc 1
expect_err "$(at syntax.vbs):3:1: Syntax error.*"
shell uncaught.js --plain "$dir/uncaught.js"
expect_rc 1
expect_err "$(at uncaught.js):3:3: boom"
[ "$out" = "before" ] || fail "output \"$out\", expected only \"before\""

shell "missing file" --plain "$work/nothing.js"
expect_rc 2
expect_err "brennock-shell: cannot read .*nothing.js: no such file"
shell "no script" --plain --timeout 5
expect_rc 2
expect_err "brennock-shell: no script named \(see --help\)"
shell "unknown language" --plain "$dir/../../README.md"
expect_rc 2

for how in idle busy; do
  shell "time limit ($how)" --plain --timeout 1 "$dir/forever.js" $how
  expect_rc 3
  expect_err "brennock-shell: $(at forever.js) did not call Shell.Quit within 1 s"
  [ "$(grep -c 'did not call' <<<"$err")" -eq 1 ] || fail "the time limit was reported more than once"
done

guard='SessionStart - Open\(\) not called beforehand\.'
shell "debug on stderr" "$dir/debug.js"
expect_rc 0
expect_err "\[ *[0-9]+\.[0-9]{3}\] $guard"
expect_err "brennock-shell: the script left the control open; closing it"
: >"$work/debug.log"
shell "debug in --log" --log "$work/debug.log" "$dir/debug.js"
expect_rc 0
expect_no_err "$guard"
grep -Eq "^\[ *[0-9]+\.[0-9]{3}\] $guard\$" "$work/debug.log" || fail "no debug line in the log"
shell "debug dropped" --quiet-debug "$dir/debug.js"
expect_no_err "$guard"

echo "$failures failure(s)"
[ $failures -eq 0 ]
