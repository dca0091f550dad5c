#!/usr/bin/env bash
# Builds the module and shows it working: installs what is missing, configures and builds in
# build/, starts the agent simulator on the product's IPC port (5003, socket under /opt), loads
# the built libtidewayapi.so into tideway-host, and holds a short conversation with the agent
# through the API: connection, tower list, tower change, statistics. The agent's log of what it
# received is printed at the end. Arguments, if any, go to tideway-host instead.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${JOBS:-$(nproc)}

"$root/scripts/install-deps.sh"

cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j"$jobs"

host="$root/build/tools/tideway-host/tideway-host"
if [ "$#" -ne 0 ]; then
  exec "$host" "$@"
fi

agent_log="$root/build/agent-sim.log"
rm -f "$agent_log"
"$root/build/tools/tideway-agent-sim/tideway-agent-sim" --daemon --stats-interval-ms 1000 \
  --log "$agent_log" &
agent=$!
trap 'kill "$agent" 2>/dev/null || true; wait "$agent" 2>/dev/null || true' EXIT
for _ in $(seq 100); do
  grep -q '^LISTENING' "$agent_log" 2>/dev/null && break
  sleep 0.1
done

status=0
"$host" --api "$root/build/src/libtidewayapi.so" || status=$?
echo
echo "What the agent received and sent ($agent_log):"
cat "$agent_log"
exit "$status"
