#!/usr/bin/env bash
# The module as the UI host sees it: tideway-host loads libtidewayapi.so with dlopen and talks
# through the API plug-in to tideway-agent-sim over the real channel on the product's port
# (socket under /opt). Passes when the conversation completes and the agent received the
# tower change, the statistics requests and the closing Disconnect.
set -euo pipefail
host=${1:?tideway-host}
agent=${2:?tideway-agent-sim}
module=${3:?libtidewayapi.so}
. "$(dirname "$0")/../../scripts/lib/agent-sim.sh"
work=$(mktemp -d)
log="$work/agent.log"
trap 'stop_agent_sim; rm -rf "$work"' EXIT
start_agent_sim "$agent" "$log" --stats-interval-ms 200

# An address that is not one is a usage error, refused before the module is loaded.
for bad in abc:12 :80 127.0.0.1:65536; do
  rc=0; timeout 20 "$host" --web "$bad" "$module" > /dev/null 2>&1 || rc=$?
  [ "$rc" -eq 2 ] || { echo "tideway-host --web $bad exited $rc, not 2" >&2; exit 1; }
done

# Kept loaded so that the sanitizer build's leak check at exit sees the module's memory.
"$host" --api --keep-loaded "$module" > "$work/host.out"
cat "$work/host.out"
grep -q '^  OnStatus: 9$' "$work/host.out"
grep -q '^  OnStatus: 11$' "$work/host.out"
grep -q '^  OnStatistics: open 7/6/8' "$work/host.out"
# The agent logs the end of the conversation when it sees it, which may be after the host
# exited: each line is waited for, up to 10 s.
for line in '^RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower="east-1"$' \
  '^RECV session=1 COMM_MSG_SERVICE_STATS_START len=0$' \
  '^RECV session=1 COMM_MSG_SERVICE_STATS_STOP len=0$' '^RECV session=1 COMM_MSG_DISCONNECT len=0$' \
  '^DISCONNECT session=1 identity=6$'; do
  for _ in $(seq 100); do grep -q "$line" "$log" && break; sleep 0.1; done
  grep -q "$line" "$log" || { echo "the agent did not log $line" >&2; cat "$log" >&2; exit 1; }
done
echo "host and agent held the whole conversation"
