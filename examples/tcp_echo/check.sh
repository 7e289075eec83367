#!/usr/bin/env bash
# Starts the echo server and talks to it with netcat.
#
#   check.sh <program>
set -euo pipefail

program=$1

fail() {
  printf 'FAILED: %s\n' "$*"
  exit 1
}

command -v nc >/dev/null || fail "nc is needed"
help=$("$program" --help)
[[ $help == "usage: "* ]] || fail '--help does not begin with "usage: "'

work=$(mktemp -d "${TMPDIR:-/tmp}/mivo-tcp-echo.XXXXXX")
server=''
trap '[[ -z $server ]] || kill "$server" 2>/dev/null || true; rm -rf "$work"' EXIT

# Above the ports that the system picks by itself. Somebody else may have one: then the next.
port=$((61000 + $$ % 4000))
for ((last = port + 100; port <= last; ++port)); do
  : >"$work/said"
  "$program" "$port" >>"$work/said" &
  server=$!
  # Each turn ends with the server's first line, or with its end.
  for ((turn = 0; turn < 600; ++turn)); do
    [[ ! -s $work/said ]] || break
    kill -0 "$server" 2>/dev/null || break
    sleep 0.05
  done
  ! grep -q '^listening ' "$work/said" || break
  status=0
  wait "$server" || status=$?
  server=''
  ((status == 1)) && grep -qx "cannot listen on port $port" "$work/said" ||
    fail "status $status without a server: $(<"$work/said")"
done
[[ -n $server ]] || fail "no port to listen on"
grep -qx "listening on port $port; end with Ctrl-C" "$work/said" || fail "the server said: $(<"$work/said")"

coproc talk { exec nc 127.0.0.1 "$port"; }
for line in "one line" "and another"; do
  printf '%s\n' "$line" >&"${talk[1]}"
  read -r -t 60 -u "${talk[0]}" answer || fail "no answer"
  printf 'echoed: %s\n' "$answer"
  [[ $answer == "$line" ]] || fail "not what was sent: $line"
done

# The port is taken now.
status=0
second=$("$program" "$port") || status=$?
printf 'a second server: %s\n' "$second"
((status == 1)) || fail "a second server ended with status $status"
[[ $second == "cannot listen on port $port" ]] || fail "a second server should not listen"

kill "$server"
status=0
wait "$server" || status=$?
server=''
((status == 143)) || fail "the server ended with status $status"
