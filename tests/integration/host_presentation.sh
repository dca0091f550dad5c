#!/usr/bin/env bash
# The presentation plug-in as the UI host sees it: tideway-host --presentation against
# tideway-agent-sim on the product's port. Passes when the setup notice, translated from the
# harness's catalogue, comes first and the pages of a connected agent follow in order (status
# 9, tower list, closest-tower settings, statistics); when a tower picked on the harness's stdin
# reaches the agent; when the agent's credential request brings up the dialog and the answer
# typed on stdin reaches the agent in its 400-byte record; and when the plug-in stops cleanly
# at "quit".
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
AGENT_SIM_CONTROL="$work/control"
start_agent_sim "$agent" "$log" --stats-interval-ms 200 --dct 1,1

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
# The agent reports automatic selection; the combobox counts only in manual mode.
wait_for "$out" '<radio label="Automatic" selected="true"/>'
# Typed documents that are not events, or never end, are each refused on their own (an empty
# line ends an open one) and leave the next event alone.
printf '%s\n' '<other id="x"></other>' '<brguiEvent id="open">' '' >&3
echo "mode manual" >&3
wait_for "$log" '^RECV session=1 COMM_MSG_DCT_SETTINGS_UPDATE len=12 mode=0 detect=1$'
# The setup notice has the manual radio selected; the agent's new report selects it again.
for _ in $(seq 150); do
  [ "$(grep -c '<radio label="Manual" selected="true"/>' "$out")" -ge 2 ] && break
  sleep 0.1
done
echo "select-tower east-1" >&3
wait_for "$log" '^RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower="east-1"$'
# The agent asks for proxy credentials: the dialog comes, the answer goes back.
echo "proxy 10.1.2.3 3128 Basic office" >&"$AGENT_SIM_CONTROL_FD"
wait_for "$out" 'id="credential_dialog" type="custom"'
echo "credentials alice s3cret pw" >&3
wait_for "$log" '^RECV session=1 COMM_MSG_PROXY_CRED_RESPONSE len=400 user="alice" password="s3cret pw" reserved=zero$'
wait_for "$out" 'id="credential_dialog" dispose="true"'
wait_for "$out" 'tag="stat_update"'
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
# The connected agent's pages, in the order the agent answered: status 9 (the tray state),
# the tower list with the active tower, the closest-tower settings, then statistics.
first_line() { grep -n -m1 -- "$1" "$out" | cut -d: -f1 || true; }
status9=$(first_line '<traystate id="tray_state_string" value="Connected"/>')
towers=$(first_line '<comboitem label="west-2" selected="true"/>')
dct=$(first_line '<radio label="Automatic" selected="true"/>')
stats=$(first_line 'tag="stat_update"')
echo "first lines: status 9 at $status9, towers at $towers, settings at $dct, statistics at $stats"
[ -n "$status9" ] && [ -n "$towers" ] && [ -n "$dct" ] && [ -n "$stats" ]
[ "$status9" -lt "$towers" ] && [ "$towers" -lt "$dct" ] && [ "$dct" -lt "$stats" ]
grep -q '^OK sent=1$' "$AGENT_SIM_CONTROL.out"
grep -q '^HandleEvent -> 0$' "$out"
[ "$(grep -A2 -- '^--- event$' "$out" | grep -c -e '^<other id="x"></other>$' -e '^<brguiEvent id="open">$' \
  -e '^HandleEvent -> -1$')" -eq 4 ]
grep -q '^--- stopped$' "$out"
# "quit" stops and disposes of the plug-in at once: its last two commands still reach the
# agent, in order, before the channel closes.
[ "$(grep -E -o '(COMM_MSG_SERVICE_STATS_STOP|COMM_MSG_DISCONNECT) len|^DISCONNECT session=1' "$log" |
    tail -n3 | tr '\n' '|')" = "COMM_MSG_SERVICE_STATS_STOP len|COMM_MSG_DISCONNECT len|DISCONNECT session=1|" ]
echo "the presentation plug-in was hosted and steered the agent"
