#!/usr/bin/env bash
# A server and its clients, each a process of its own. The last line says whether everything was as it should be.
#
#   run.sh <build folder>
set -euo pipefail

programs=$(cd "${1:?usage: run.sh <build folder>}" && pwd)/examples
started=$SECONDS
work=''
socket=''
children=()
clean_up() {
  local status=$?
  trap - EXIT
  # Those that have ended are no longer in it.
  ((${#children[@]} == 0)) || kill "${children[@]}" 2>/dev/null || true
  wait
  ((status == 0)) || [[ ! -s $work/server.log ]] || sed 's/^/server said: /' "$work/server.log"
  [[ -z $work ]] || rm -rf "$work" "/tmp/echo.sock.$socket"
  if ((status > 128)); then
    printf '\nThe demo was interrupted.\n'
  elif ((status != 0)); then
    printf '\nThe demo did not work.\n'
  fi
  exit "$status"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

work=$(mktemp -d "${TMPDIR:-/tmp}/mivo-demo.XXXXXX")
# As unique as the folder: two demos do not meet.
socket=${work##*/}

# In the background, so that a signal to this script ends the wait at once.
start() {
  "$@" &
  children+=($!)
}
finish() {
  local pid=$1 status=0 child rest=()
  wait "$pid" || status=$?
  for child in "${children[@]}"; do
    [[ $child == "$pid" ]] || rest+=("$child")
  done
  children=("${rest[@]}")
  return $status
}
scene() {
  start "$programs/demo_client" "$@"
  finish $!
}
title() { printf '\n\n######## %s\n' "$*"; }

"$programs/demo_server" "$socket" "$work/stored" >"$work/server.log" 2>&1 &
server=$!
children+=("$server")

title "Calls over three transports"
scene tour "$socket"

title "Subscribers: three processes; the second leaves after two readings"
subscribers=()
for count in 6 2 6; do
  start "$programs/demo_client" subscribe "$socket" "subscriber $((${#subscribers[@]} + 1))" "$count"
  subscribers+=($!)
done
scene publish "$socket"
for subscriber in "${subscribers[@]}"; do
  finish "$subscriber"
done

title "A file of 64 MiB, there and back"
head -c $((64 << 20)) /dev/urandom >"$work/original"
scene file "$socket" "$work/original" "$work/fetched"
cmp "$work/original" "$work/fetched"

title "The server goes away"
scene goodbye "$socket"
finish "$server"

printf '\nThe demo worked: everything came back as it should, in %d seconds.\n' $((SECONDS - started))
