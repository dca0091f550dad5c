#!/usr/bin/env bash
# The presentation plug-in as the UI host sees it: tideway-host --presentation against
# tideway-agent-sim on the product's port. Passes when the setup notice, translated from the
# harness's catalogue, comes first, a tower picked on the harness's stdin reaches the agent,
# and the plug-in stops cleanly at "quit".
set -euo pipefail
host=${1:?tideway-host}
agent=${2:?tideway-agent-sim}
module=${3:?libtidewayapi.so}
. "$(dirname "$0")/../../scripts/lib/agent-sim.sh"
work=$(mktemp -d)
log="$work/agent.log"
out="$work/host.out"
host_pid=
cleanup() {
  [ -n "$host_pid" ] && kill "$host_pid" 2>/dev/null || true
  stop_agent_sim
  rm -rf "$work"
}
trap cleanup EXIT
start_agent_sim "$agent" "$log"

# Waits up to 15 s for a line matching $2 in file $1.
wait_for() {
  for _ in $(seq 150); do
    grep -q "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "timed out waiting for '$2' in $1" >&2
  cat "$out" >&2
  return 1
}

mkfifo "$work/in"
# Kept loaded so that the sanitizer build's leak check at exit sees the module's memory.
"$host" --presentation --keep-loaded "$module" < "$work/in" > "$out" &
host_pid=$!
exec 3> "$work/in"
wait_for "$out" '^Start -> 0$'
# A tower picked before the plug-in's API is connected cannot reach the agent; the last of the
# requests the plug-in makes on connecting shows that it is.
wait_for "$log" '^RECV session=1 COMM_MSG_PROXY_STATE_QUERY'
echo "select-tower east-1" >&3
wait_for "$log" '^RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower="east-1"$'
echo quit >&3
exec 3>&-
status=0
wait "$host_pid" || status=$?
host_pid=
cat "$out"
[ "$status" -eq 0 ]

# The first notice is the setup notice, with the catalogue's texts in it.
first=$(grep -m1 -A1 '^--- notice$' "$out" | tail -n1)
[[ "$first" == '<brguiNotice module="com.tarvex.brenlo.presentation.tideway" type="setup" '* ]]
grep -q '<label id="simple_tile_label" value="Tideway:"/>' "$out"
grep -q '<radio label="Automatic" selected="false"/>' "$out"
grep -q '^HandleEvent -> 0$' "$out"
grep -q '^--- stopped$' "$out"
grep -q '^DISCONNECT session=1 identity=6$' "$log"
echo "the presentation plug-in was hosted and steered the agent"
