#!/usr/bin/env bash
# Runs the example and looks for what it says when parent and child have met. The pipe is named after the process id of
# whoever starts the program: this script, so that no other test has the same.
#
#   check.sh <program>
set -euo pipefail

program=$1

fail() {
  printf 'FAILED: %s\n' "$*"
  exit 1
}

help=$("$program" --help)
[[ $help == "usage: "* ]] || fail '--help does not begin with "usage: "'

status=0
output=$("$program") || status=$?
printf '%s\n' "$output"
((status == 0)) || fail "status $status"
grep -qE '^the child answered on port [0-9]{5}$' <<<"$output" || fail "the child did not answer"
[[ ! -e /tmp/echo.pipe.$$ ]] || fail "the pipe was left behind"
