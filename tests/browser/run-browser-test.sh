#!/usr/bin/env bash
# The web face in a real browser: starts tideway-agent-sim on the product's port (socket under
# /opt) with a control socket and a log, starts `tideway-host --web 127.0.0.1:0` on it, reads
# the address from its "Serving http://..." line, and runs web-host.test.mjs in headless
# Chromium. Passes when the scenario passes and tideway-host leaves with 0 on SIGTERM.
#   run-browser-test.sh <tideway-host> <tideway-agent-sim> <libtidewayapi.so> <artefact dir>
# A missing Chromium or node_modules is a failure, not a skip: scripts/install-deps.sh
# installs both. The screenshot web-host.png and the logs stay in the artefact dir.
set -euo pipefail
host=${1:?tideway-host}
agent=${2:?tideway-agent-sim}
module=${3:?libtidewayapi.so}
artefacts=${4:?artefact dir}
here=$(cd "$(dirname "$0")" && pwd)
chromium=${CHROMIUM:-/usr/bin/chromium}

missing=
command -v node >/dev/null || missing="node"
[ -x "$chromium" ] || missing="$missing $chromium"
[ -f "$here/node_modules/playwright-core/package.json" ] || missing="$missing $here/node_modules"
if [ -n "$missing" ]; then
  echo "browser test cannot run, missing:$missing (run scripts/install-deps.sh)" >&2
  exit 1
fi

. "$here/../../scripts/lib/agent-sim.sh"
mkdir -p "$artefacts"
rm -f "$artefacts"/web-host*.png  # a picture left from an earlier run must not pass for this one
work=$(mktemp -d)
log="$artefacts/agent.log"
host_out="$artefacts/host.out"
host_pid=
cleanup() {
  if [ -n "$host_pid" ]; then kill "$host_pid" 2>/dev/null || true; wait "$host_pid" || true; fi
  stop_agent_sim
  rm -rf "$work"
}
trap cleanup EXIT

start_agent_sim "$agent" "$log" --control "$work/control" --stats-interval-ms 500
# Emptied here, not by the redirection below: that one happens in the child, maybe after the
# loop has read the address of an earlier run.
: > "$host_out"
# Kept loaded so that the sanitizer build's leak check at exit sees the module's memory.
"$host" --web 127.0.0.1:0 --agent-control "$work/control" --agent-log "$log" --keep-loaded \
  "$module" > "$host_out" 2> "$artefacts/host.err" &
host_pid=$!
url=
for _ in $(seq 300); do
  url=$(sed -n 's|^Serving \(http://[^ ]*\)$|\1|p' "$host_out")
  [ -n "$url" ] && break
  kill -0 "$host_pid" 2>/dev/null || break
  sleep 0.1
done
if [ -z "$url" ]; then
  echo "tideway-host --web did not print its address" >&2
  cat "$host_out" "$artefacts/host.err" >&2
  exit 1
fi
echo "tideway-host serves $url"

status=0
CHROMIUM="$chromium" node "$here/web-host.test.mjs" "$url" "$log" "$artefacts" || status=$?

kill -TERM "$host_pid"
host_status=0
wait "$host_pid" || host_status=$?
host_pid=
if [ "$host_status" -ne 0 ]; then
  echo "tideway-host left with $host_status after SIGTERM" >&2
  cat "$artefacts/host.err" >&2
  status=1
fi
exit "$status"
