#!/usr/bin/env bash
# Runs an example and compares what it prints.
#
#   check_output.sh <program> <expected output>
set -euo pipefail

program=$1
expected=$2

help=$("$program" --help)
[[ $help == "usage: "* ]] || {
  printf 'FAILED: --help does not begin with "usage: "\n'
  exit 1
}

status=0
output=$("$program") || status=$?
# Remarks of the library's that depend on who runs this and how fast: a socket file that may not be given away, and answers
# that one side sends, or can no longer send, when the other has left or it leaves itself.
output=$(sed -e 's/^chown error//' -e '/^write error$/d' -e '/^write data error$/d' -e '/^Write error: /d' \
  -e '/^Read error /d' <<<"$output")
diff <(printf '%s\n' "$(<"$expected")") <(printf '%s\n' "$output") || status=1
((status == 0)) || printf 'FAILED: status %d\n' "$status"
exit "$status"
