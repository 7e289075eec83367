#!/usr/bin/env bash
# What compilers say to programs that use the library.
#
#   check.sh refused <source> <command>...    it does not compile, for the reason on its first line
#   check.sh accepted <source> <command>...   it compiles, and the compiler has nothing to say
#   check.sh timed <ratio> <measure> <source> <command>...
#                                             it compiles within so many times the processor time that the measure takes
#
# The command is a compiler with its options.
set -euo pipefail

fail() {
  printf 'FAILED: %s\n' "$*" >&2
  exit 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
object=$work/object.o

refused() {
  local source=$1 reason first count
  shift
  reason=$(sed -n '1s,^// refused: ,,p' "$source")
  [[ -n $reason ]] || fail "the first line of $source gives no reason"
  if "$@" -c -o "$object" "$source" >"$work/said" 2>&1; then
    fail "it compiles"
  fi
  cat "$work/said"
  first=$(grep -m 1 'error:' "$work/said") || fail "no error is told"
  [[ $first == *"$reason"* ]] || fail "the first error does not say: $reason"
  # More would push it out of sight.
  count=$(grep -c 'error:' "$work/said")
  ((count <= 5)) || fail "$count errors are told"
}

accepted() {
  local source=$1
  shift
  "$@" -c -o "$object" "$source" >"$work/said" 2>&1 || {
    cat "$work/said"
    fail "it does not compile"
  }
  [[ ! -s $work/said ]] || {
    cat "$work/said"
    fail "the compiler has something to say"
  }
}

# seconds_of <command>...: processor time.
seconds_of() {
  local seconds TIMEFORMAT='%U %S'
  seconds=$({ time "$@" >&2; } 2>&1) || fail "it does not compile: $seconds"
  awk '{ print $1 + $2 }' <<<"$seconds"
}

# In turn, and the least of each: whatever else the machine does, it does to both.
timed() {
  local limit=$1 measure=$2 source=$3 times=()
  shift 3
  for _ in 1 2 3; do
    times+=("$(seconds_of "$@" -O0 -c -o "$object" "$measure") $(seconds_of "$@" -O0 -c -o "$object" "$source")")
  done
  printf '%s\n' "${times[@]}" | awk -v limit="$limit" '
    NR == 1 || $1 < measure { measure = $1 }
    NR == 1 || $2 < seconds { seconds = $2 }
    END {
      printf "%.2f s with -O0, %.2f times what its C++ headers alone take; at most %.1f times are allowed\n",
             seconds, seconds / measure, limit
      exit seconds > limit * measure
    }' || fail "it takes too long to compile"
}

mode=$1
shift
case $mode in
  refused | accepted | timed) "$mode" "$@" ;;
  *) fail "no such mode: $mode" ;;
esac
