#!/usr/bin/env bash
# Kills the server in the middle of its jobs and starts it again: no job is lost, and who waits for them is told.
#
#   check.sh <client> <server>
set -euo pipefail

client_program=$1
server_program=$2
folder=$(mktemp -d)
address=unix:$folder/socket
server=
submitters=()

fail() {
  printf 'FAILED: %s\n' "$*"
  exit 1
}
end() {
  kill -9 "$server" "${submitters[@]}" 2>/dev/null || true
  rm -rf "$folder"
}
trap end EXIT

start_server() {
  "$server_program" "$address" "$folder/jobs" &
  server=$!
}
ask() { "$client_program" "$address" "$@"; }
expect() { # <expected> <found>, but for what the library says of answers that come when the other has left
  local found
  found=$(sed -e '/^write error$/d' -e '/^write data error$/d' -e '/^Write error: /d' -e '/^Read error /d' <<<"$2")
  [[ $found == "$1" ]] || fail "expected \"$1\", found \"$found\""
}
# submit <milliseconds> <job>: in the background, until the server has it. What is said goes into a file of that name.
submit() {
  local end=$((SECONDS + 60))
  ask submit "$1" "$2" >"$folder/$2" &
  submitters+=($!)
  until grep -sqx '1 submitted' "$folder/$2"; do
    ((SECONDS < end)) || fail "$2 was not submitted"
    sleep 0.05
  done
}
await_submitters() {
  local submitter
  for submitter in "${submitters[@]}"; do
    wait "$submitter" || fail "who has submitted ended with status $?"
  done
  submitters=()
}
end_server() {
  kill -TERM "$server"
  wait "$server" || fail "the server ended with status $?"
  server=
  [[ ! -e $folder/socket ]] || fail "the socket was left behind"
}

for program in "$client_program" "$server_program"; do
  help=$("$program" --help)
  [[ $help == "usage: "* ]] || fail '--help does not begin with "usage: "'
done

printf '%s\n' '-- killed'
start_server
expect $'2 submitted\na: done\nb: done' "$(ask submit 50 a b | sort)"
submit 600000 long
submit 50 next
kill -9 "$server"
wait "$server" || true
printf 'done 0 ne' >>"$folder/jobs" # as if it had been in the middle of a line
start_server
expect $'a: done\nb: done\nlong: waiting\nnext: waiting' "$(ask list)"
expect 'long: cancelled' "$(ask cancel long)"
await_submitters
expect $'1 submitted\nlong: cancelled' "$(<"$folder/long")"
expect $'1 submitted\nnext: done' "$(<"$folder/next")"

printf '%s\n' '-- ended'
submit 600000 last
end_server
start_server
expect 'last: waiting' "$(ask status last)"
expect 'last: cancelled' "$(ask cancel last)"
await_submitters
expect $'1 submitted\nlast: cancelled' "$(<"$folder/last")"

printf '%s\n' '-- refused'
status=0
said=$(ask status none 2>&1) || status=$?
expect 'there is no job none' "$said"
expect 1 "$status"
end_server
