#!/usr/bin/env bash
# Runs the typed program that the README shows, and looks at what it says.
#
#   run_typed.sh <program>
set -euo pipefail

said=$("$1") || {
  printf 'FAILED: it ended with status %s\n%s\n' $? "$said"
  exit 1
}
printf '%s\n' "$said"
# Whether the post is still handled before the program ends is nobody's promise. The library's own remark on socket files
# that cannot be given away may come first.
for line in '42' '1099511627776 bytes'; do
  grep -qxF -- "$line" <<<"$said" || {
    printf 'FAILED: it did not say "%s"\n' "$line"
    exit 1
  }
done
