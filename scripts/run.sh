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

. "$root/scripts/lib/agent-sim.sh"
agent_log="$root/build/agent-sim.log"
trap stop_agent_sim EXIT
start_agent_sim "$root/build/tools/tideway-agent-sim/tideway-agent-sim" "$agent_log" \
  --stats-interval-ms 1000

status=0
"$host" --api "$root/build/src/libtidewayapi.so" || status=$?
echo
echo "What the agent received and sent ($agent_log):"
cat "$agent_log"
exit "$status"
