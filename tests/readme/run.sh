#!/usr/bin/env bash
# Plays what the README tells: starts its server, runs its client, presses Enter.
#
#   run.sh <server> <client> <README>
set -euo pipefail

server_program=$1
client_program=$2
readme=$3
promised='2 + 40 = 42'

fail() {
  printf 'FAILED: %s\n' "$*"
  exit 1
}

grep -qF "the client says \`$promised\`" "$readme" || fail "the README does not promise \"$promised\""

coproc talk { exec "$server_program"; }
server=$!
trap 'kill "$server" 2>/dev/null || true' EXIT
to_server=${talk[1]}
while read -r -t 60 -u "${talk[0]}" line || fail "the server did not come up"; do
  printf 'server: %s\n' "$line"
  # A user who may not give the socket file away gets a remark of the library's in front of it.
  [[ $line != *"Press Enter to stop." ]] || break
done

said=$("$client_program") || fail "the client ended with status $?"
printf 'client: %s\n' "$said"
[[ $said == "$promised" ]] || fail "the client should have said \"$promised\""

printf '\n' >&"$to_server"
status=0
wait "$server" || status=$?
((status == 0)) || fail "the server ended with status $status"
