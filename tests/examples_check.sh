#!/usr/bin/env bash
# Runs the example programs against the simulated reader, as examples/README.md shows them, and checks what
# they print: a second tandro-sim process on a pseudo-terminal (or on UDP and TCP for the network example),
# with the cards of examples/scenarios.
#   examples_check.sh SIM DIR PREFIX [NAME...]
# SIM is tandro-sim; the examples are DIR/PREFIXNAME (PREFIX "example_" in the build tree, "" for the builds
# against the installed package). Without NAMEs every example runs. Any failure ends the script non-zero.
set -euo pipefail
sim=$1 dir=$2 prefix=$3
shift 3
scenarios=$(cd "$(dirname "$0")/../examples/scenarios" && pwd)
# Without names: every example of the folder, each of which must have its run_NAME below.
if [ $# -eq 0 ]; then
  for src in "$(dirname "$0")"/../examples/*.c; do set -- "$@" "$(basename "$src" .c)"; done
fi

work=$(mktemp -d)
sim_pid=""
ev_pid=""
cleanup() {
  if [ -n "$sim_pid" ]; then kill "$sim_pid" 2>/dev/null || true; fi
  if [ -n "$ev_pid" ]; then kill "$ev_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
NO_RESET=UNIT_OPEN_RESET_DISABLE

# Starts tandro-sim with the arguments given and waits until it has printed its links (at most 20 s: a loaded
# machine may take seconds to start one).
# PTY, UDP and TCP get what it serves.
start_sim() {
  # Emptied here, not only by the background redirection, which may come after the first look below.
  : > "$work/links"
  "$sim" "$@" > "$work/links" &
  sim_pid=$!
  local want=0
  for a in "$@"; do case $a in --pty | --udp | --tcp) want=$((want + 1)) ;; esac; done
  for _ in $(seq 400); do
    [ "$(grep -c -E '^(pty|udp|tcp) ' "$work/links" || true)" -ge "$want" ] && break
    kill -0 "$sim_pid" 2>/dev/null || { echo "tandro-sim ended: $*"; return 1; }
    sleep 0.05
  done
  PTY=$(awk '/^pty/ {print $2}' "$work/links")
  UDP=$(awk '/^udp/ {print $2}' "$work/links")
  TCP=$(awk '/^tcp/ {print $2}' "$work/links")
  [ -n "$PTY$UDP$TCP" ] || { echo "tandro-sim printed no link: $*"; return 1; }
}
stop_sim() {
  kill "$sim_pid" 2>/dev/null || true
  wait "$sim_pid" 2>/dev/null || true
  sim_pid=""
}

# expect OK|FAIL "LINE-REGEX..." -- PROGRAM ARGS: runs the program (30 s at most); OK wants exit 0, FAIL a
# non-zero exit; every regex must match a line of what it printed (standard output and error).
expect() {
  local want=$1
  shift
  local patterns=()
  while [ "$1" != "--" ]; do
    patterns+=("$1")
    shift
  done
  shift
  local rc=0
  timeout 30 "$@" > "$work/out" 2>&1 || rc=$?
  sed 's/^/    /' "$work/out"
  # Under a sanitizer a report is a failure even where the program was to fail.
  if grep -q -E '^(==[0-9]+==ERROR: |WARNING: ThreadSanitizer|SUMMARY: [A-Za-z]+Sanitizer)|runtime error: ' "$work/out"; then
    echo "-- sanitizer report from: $*"
    return 1
  fi
  if [ "$want" = OK ] && [ $rc -ne 0 ]; then
    echo "-- exit $rc from: $*"
    return 1
  fi
  if [ "$want" = FAIL ] && { [ $rc -eq 0 ] || [ $rc -ge 124 ]; }; then
    echo "-- expected a failure (exit 1 or 2) from: $*, got $rc"
    return 1
  fi
  for p in "${patterns[@]}"; do
    grep -q -E -- "$p" "$work/out" || { echo "-- no line matches: $p"; return 1; }
  done
}

run_read_uid() {
  start_sim --pty --card 04A22B1A5C6480:00:0044:ORB_NTAG_215
  expect OK '^UID 04A22B1A5C6480, SAK 00$' -- "$1" "$PTY" $NO_RESET
  stop_sim
}

run_list_cards() {
  start_sim --pty --scenario "$scenarios/field.json"
  expect OK '^3 cards in the field$' '^  1  5A3C9E21$' '^  2  04A22B1A5C6480$' '^  3  08A1B2C3$' \
    '^selected 04A22B1A5C6480: ORB_NTAG_215' -- "$1" -a $NO_RESET "$PTY" 04A22B1A5C6480
  # A UID that is not in the field cannot be selected.
  expect FAIL '^3 cards in the field$' '^cards: ' -- "$1" -a $NO_RESET "$PTY" 01020304
  stop_sim
}

run_classic_block() {
  start_sim --pty --scenario "$scenarios/field.json"
  expect OK '^block 4: 54616E64726F2073696D756C61746564$' '^written 4: 00112233445566778899AABBCCDDEEFF$' \
    -- "$1" -a $NO_RESET "$PTY" 4 A0A1A2A3A4A5 00112233445566778899AABBCCDDEEFF
  # The write stays on the card; short data is filled up with zeros.
  expect OK '^block 4: 00112233445566778899AABBCCDDEEFF$' '^written 4: CAFE0000000000000000000000000000$' \
    -- "$1" -a $NO_RESET "$PTY" 4 A0A1A2A3A4A5 CAFE
  # Sector 1 does not open with the transport key, and a key of the wrong size is a usage error.
  expect FAIL '^block 4: ' -- "$1" -a $NO_RESET "$PTY" 4 FFFFFFFFFFFF
  expect FAIL '^usage: ' -- "$1" -a $NO_RESET "$PTY" 4 A0A1A2A3A4
  stop_sim
}

run_ndef_uri() {
  start_sim --pty --scenario "$scenarios/ndef_tag.json"
  expect OK '^1 message, 1 record$' '^URI https://tandro\.example/sim$' -- "$1" -a $NO_RESET "$PTY"
  stop_sim
  # A Classic card without an NDEF area.
  start_sim --pty --scenario "$scenarios/field.json"
  expect FAIL '^NDEF: ' -- "$1" -a $NO_RESET "$PTY"
  stop_sim
}

run_passport_bac() {
  start_sim --pty --scenario "$scenarios/passport.json"
  expect OK 'ERIKSSON' 'ANNA MARIA' 'L898902C3' -- "$1" -a $NO_RESET "$PTY" L898902C3 740812 120415
  # Another date of birth makes another key: the chip refuses it.
  expect FAIL '^Basic Access Control: ' -- "$1" -a $NO_RESET "$PTY" L898902C3 740813 120415
  stop_sim
}

run_card_events() {
  # The simulator takes "add" and "remove" on its standard input, here a FIFO held open by this script.
  mkfifo "$work/commands"
  : > "$work/links"
  "$sim" --pty --commands < "$work/commands" > "$work/links" 2> "$work/sim.err" &
  sim_pid=$!
  exec 3> "$work/commands"
  for _ in $(seq 400); do grep -q '^pty ' "$work/links" && break; sleep 0.05; done
  PTY=$(awk '/^pty/ {print $2}' "$work/links")
  [ -n "$PTY" ] || { echo "tandro-sim printed no pseudo-terminal"; return 1; }
  timeout 30 "$1" -a $NO_RESET -n 2 "$PTY" > "$work/events" 2>&1 &
  ev_pid=$!
  wait_line() { # regex: waits up to 20 s for a line of the example's output
    for _ in $(seq 400); do grep -q -E "$1" "$work/events" && return 0; sleep 0.05; done
    echo "-- no line matches: $1"; sed 's/^/    /' "$work/events"; return 1
  }
  wait_line '^watching '
  echo "add 04A22B1A5C6480 00 0044 ORB_NTAG_215" >&3
  wait_line '^arrived 04A22B1A5C6480 '
  echo "remove 04A22B1A5C6480" >&3
  local rc=0
  wait "$ev_pid" || rc=$?
  ev_pid=""
  echo quit >&3
  exec 3>&-
  wait "$sim_pid" 2>/dev/null || true
  sim_pid=""
  sed 's/^/    /' "$work/events"
  [ $rc -eq 0 ] || { echo "-- card_events ended with $rc"; return 1; }
  ! grep -q -E '^(==[0-9]+==ERROR: |WARNING: ThreadSanitizer)|runtime error: ' "$work/events" ||
    { echo "-- sanitizer report from card_events"; return 1; }
  grep -q -E '^arrived 04A22B1A5C6480 ORB_NTAG_215 ' "$work/events" || { echo "-- no arrival of the NTAG"; return 1; }
  grep -q -x 'left' "$work/events" || { echo "-- no removal"; return 1; }
  rm -f "$work/commands"
}

run_network_reader() {
  start_sim --udp 127.0.0.1:0 --tcp 127.0.0.1:0 --card 04A22B1A5C6480:00:0044:ORB_NTAG_215
  expect OK '^reader D1180022, serial number [0-9]+, firmware [0-9]+\.[0-9]+, over UDP$' \
    '^card 04A22B1A5C6480, SAK 00$' -- "$1" "$UDP"
  expect OK '^reader D1180022, serial number [0-9]+, firmware [0-9]+\.[0-9]+, over TCP$' \
    '^card 04A22B1A5C6480, SAK 00$' -- "$1" -t "$TCP"
  stop_sim
}

run_simulated_reader() {
  expect OK '^simulated reader D1180022 on /dev/pts/[0-9]+: UID 04A22B1A5C6480, SAK 00$' '^[1-9][0-9]* exchanges$' \
    -- "$1"
  expect OK '^simulated reader D1180022 on /dev/pts/[0-9]+: UID 5A3C9E21, SAK 08$' -- "$1" "$scenarios/field.json"
  expect FAIL 'no-such-scenario' -- "$1" "$work/no-such-scenario.json"
}

for name in "$@"; do
  program="$dir/$prefix$name"
  declare -F "run_$name" > /dev/null || { echo "-- no check for the example $name"; exit 1; }
  [ -x "$program" ] || { echo "-- $program was not built"; exit 1; }
  echo "-- $name"
  "run_$name" "$program"
done
echo "-- examples passed: $*"
