#!/usr/bin/env bash
# Builds the module and shows it working: installs what is missing, configures build/ and builds
# what the harness needs (the module, tideway-host and its page, tideway-agent-sim; no tests, no
# benchmarks), starts the agent simulator on the product's IPC port (5003, socket under /opt),
# and then:
#   scripts/run.sh [--web [ADDR:]PORT]  serves the web face (default 127.0.0.1:8080, or a free
#                                       port when 8080 is taken) and prints the address to open;
#                                       Ctrl-C stops tideway-host and the simulator
#   scripts/run.sh --console            the scripted console conversation through the API:
#                                       connection, tower list, tower change, statistics, then
#                                       what the agent received
#   scripts/run.sh OTHER ARGS...        runs tideway-host with those arguments (--help lists them)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${JOBS:-$(nproc)}

mode=web
address=
if [ "${1:-}" = "--console" ] && [ "$#" -eq 1 ]; then
  mode=console
elif [ "${1:-}" = "--web" ] && [ "$#" -le 2 ]; then
  address=${2:-}
elif [ "$#" -ne 0 ]; then
  mode=host
fi

"$root/scripts/install-deps.sh"

cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j"$jobs" --target tidewayapi tideway-host tideway-agent-sim

host="$root/build/tools/tideway-host/tideway-host"
module="$root/build/src/libtidewayapi.so"
if [ "$mode" = host ]; then
  exec "$host" "$@"
fi

. "$root/scripts/lib/agent-sim.sh"
agent_log="$root/build/agent-sim.log"
host_pid=
stop_all() {
  if [ -n "$host_pid" ]; then kill -TERM "$host_pid" 2>/dev/null || true; wait "$host_pid" || true; fi
  stop_agent_sim
}
trap stop_all EXIT

if [ "$mode" = console ]; then
  start_agent_sim "$root/build/tools/tideway-agent-sim/tideway-agent-sim" "$agent_log" \
    --stats-interval-ms 1000
  status=0
  "$host" --api "$module" || status=$?
  echo
  echo "What the agent received and sent ($agent_log):"
  cat "$agent_log"
  exit "$status"
fi

control="$root/build/agent-sim.control"
start_agent_sim "$root/build/tools/tideway-agent-sim/tideway-agent-sim" "$agent_log" \
  --control "$control" --stats-interval-ms 2000

host_log="$root/build/web-host.log"
# Starts tideway-host --web on $1 and waits for its "Serving http://..." line; sets url. The
# host runs in a session of its own, so that a Ctrl-C at the terminal reaches it once, as the
# SIGTERM sent below (a second signal would make it leave at once instead of stopping cleanly).
start_web() {
  : > "$host_log"  # emptied before the host starts, so an earlier run's address is never read
  setsid "$host" --web "$1" --agent-control "$control" --agent-log "$agent_log" "$module" \
    > "$host_log" 2>&1 &
  host_pid=$!
  url=
  for _ in $(seq 300); do
    url=$(sed -n 's|^Serving \(http://[^ ]*\)$|\1|p' "$host_log")
    [ -n "$url" ] && return 0
    if ! kill -0 "$host_pid" 2>/dev/null; then
      wait "$host_pid" || true
      host_pid=
      return 1
    fi
    sleep 0.1
  done
  return 1
}
if ! start_web "${address:-127.0.0.1:8080}"; then
  cat "$host_log" >&2
  if [ -n "$address" ]; then
    echo "tideway-host --web $address did not start (log: $host_log)" >&2
    exit 1
  fi
  echo "127.0.0.1:8080 is not available; serving on a free port instead" >&2
  start_web 127.0.0.1:0 || { cat "$host_log" >&2; exit 1; }
fi

signalled=0
on_signal() {
  signalled=1
  echo
  echo "Stopping tideway-host and the agent simulator"
  kill -TERM "$host_pid" 2>/dev/null || true
}
trap on_signal INT TERM
echo "The agent simulator's log: $agent_log; tideway-host's output: $host_log"
echo "Serving until Ctrl-C. Open in a browser:"
echo "$url"
status=0
wait "$host_pid" || status=$?
# A signal ends the first wait early; the second gives the host's own exit status.
if [ "$signalled" -eq 1 ]; then
  status=0
  wait "$host_pid" || status=$?
fi
host_pid=
trap - INT TERM
stop_agent_sim
echo "Stopped (tideway-host left with $status)"
exit "$status"
