# Sourced by the bench scripts: check DESCRIPTION COMMAND... counts failures.
failures=0
check() {
  local what=$1; shift
  if "$@"; then echo "ok   $what"; else echo "FAIL $what"; failures=$((failures + 1)); fi
}
