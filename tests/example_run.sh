#!/usr/bin/env bash
# Runs an example program against tandro-sim in a second process, as the README shows, and checks its output.
#   example_run.sh SIM "SIM ARGS" EXAMPLE EXPECTED-REGEX [EXAMPLE ARGS after the port...]
set -euo pipefail
sim=$1 sim_args=$2 example=$3 want=$4
shift 4
links=$(mktemp)
# shellcheck disable=SC2086
"$sim" --pty $sim_args > "$links" &
pid=$!
trap 'kill $pid 2>/dev/null || true; rm -f "$links"' EXIT
for _ in $(seq 100); do grep -q '^pty ' "$links" && break; sleep 0.05; done
port=$(awk '/^pty/ {print $2}' "$links")
[ -n "$port" ] || { echo "the simulated reader printed no pseudo-terminal"; exit 1; }
out=$("$example" "$port" "$@")
echo "$out"
[[ $out =~ $want ]] || { echo "no match for: $want"; exit 1; }
