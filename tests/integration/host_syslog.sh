#!/usr/bin/env bash
# The module's records as a real system log receives them. tideway-host holds its --api
# conversation with tideway-agent-sim while a scratch rsyslogd listens on /dev/log; the test
# then checks that each statement of that conversation arrived as one record of its own, with
# the module's exact text, under the host's identity (tideway-host[PID]) in facility user.
#
# Nothing of the machine is touched: the programs run in a private mount namespace whose /dev is
# a scratch directory (a few device nodes bound in, and the daemon's socket as /dev/log) and
# whose /opt is empty, so the module starts from its default profile and the simulator's socket
# is private too. Needs root (unshare) and Debian's rsyslog (scripts/install-deps.sh).
set -euo pipefail

# Inside the namespace: the daemon, the simulator and the conversation, stopped again on exit.
converse() {
  local work=$1 host=$2 agent=$3 module=$4
  mkdir "$work/dev" "$work/opt"
  for node in null zero full random urandom tty; do
    : > "$work/dev/$node"
    mount --bind "/dev/$node" "$work/dev/$node"
  done
  ln -s /proc/self/fd "$work/dev/fd"
  mount --rbind "$work/dev" /dev
  mount --bind "$work/opt" /opt

  cat > "$work/rsyslog.conf" <<EOF
global(workDirectory="$work")
main_queue(queue.workerThreads="1")
module(load="imuxsock" SysSock.Name="/dev/log" SysSock.RateLimit.Interval="0")
template(name="record" type="string"
         string="%syslogfacility-text%.%syslogseverity-text% %syslogtag%%msg%\n")
*.* action(type="omfile" file="$work/records.log" template="record")
EOF
  . "$(dirname "$0")/../../scripts/lib/agent-sim.sh"
  trap 'stop_agent_sim; kill "${daemon:-}" 2>/dev/null; wait' EXIT
  rsyslogd -n -f "$work/rsyslog.conf" -i "$work/rsyslogd.pid" 2> "$work/rsyslogd.err" &
  daemon=$!
  for _ in $(seq 100); do [ -S /dev/log ] && break; sleep 0.1; done
  [ -S /dev/log ] || { echo "rsyslogd did not make /dev/log" >&2; return 1; }

  start_agent_sim "$agent" "$work/agent.log" --stats-interval-ms 200
  "$host" --api --keep-loaded "$module" > "$work/host.out" &
  echo $! > "$work/host.pid"
  wait $!
  # Records are read in the order they were sent: once this one is written, so are the host's.
  logger -u /dev/log -t host_syslog "conversation over"
  for _ in $(seq 100); do
    grep -q ' host_syslog: conversation over$' "$work/records.log" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "rsyslogd wrote no record of the conversation's end" >&2
  return 1
}

if [ "${1:-}" = --in-namespace ]; then
  shift
  converse "$@"
  exit
fi

host=${1:?tideway-host}
agent=${2:?tideway-agent-sim}
module=${3:?libtidewayapi.so}
command -v rsyslogd >/dev/null || { echo "rsyslogd is missing: run scripts/install-deps.sh" >&2; exit 1; }
work=$(mktemp -d)
# Run from outside the namespace, after it is gone: no mount of it is visible here.
trap 'rm -rf "$work"' EXIT
status=0
unshare --mount --propagation private "$0" --in-namespace "$work" "$host" "$agent" "$module" ||
  status=$?
records="$work/records.log"
show() {
  echo "--- host output"; cat "$work/host.out" 2>/dev/null || true
  echo "--- rsyslogd"; cat "$work/rsyslogd.err" 2>/dev/null || true
  echo "--- records"; cat "$records" 2>/dev/null || true
}
if [ "$status" -ne 0 ]; then
  show
  echo "the conversation under the scratch rsyslogd failed ($status)" >&2
  exit 1
fi

tag="tideway-host[$(cat "$work/host.pid")]:"
# The plug-in's address, which two of the records carry.
pointer=$(sed -n 's/.* Created plugin IVANTORIA_API (\(0x[0-9a-f]*\))$/\1/p' "$records" | head -n 1)
# Each row: how often the record must come, its severity and its text. Rows marked ">" are
# also in this order among themselves: the host's own statements, and the agent's answers that
# the host waits for before its next step.
awk -v tag="$tag" -v ptr="$pointer" '
  NR == FNR {
    text = $0; sub(/^. [0-9]+ [a-z]+ /, "", text); gsub(/PTR/, ptr, text)
    rec[NR] = "user." $3 " " tag " " text; want[NR] = $2; ordered[NR] = ($1 == ">"); rows = NR
    next
  }
  index($0, tag) || /tideway-host[:\[]|brtidewayapi/ {
    mine = index($0, " " tag " ") > 0 && $0 ~ /^user\.notice /
    if (!mine) { print "record not a notice under " tag " in facility user: " $0; bad = 1 }
    n = split($0, parts, "#012")
    if (n > 1 && !($0 == "user.notice " tag " DisposePlugin " ptr " called#012")) {
      print "record holding more than one line: " $0; bad = 1
    }
    seen[$0]++
    if (next_row <= rows) {
      while (next_row <= rows && !ordered[next_row]) next_row++
      if (next_row <= rows && $0 == rec[next_row]) next_row++
    }
  }
  END {
    for (i = 1; i <= rows; i++) {
      if (seen[rec[i]] != want[i]) {
        printf "%d times instead of %d: %s\n", seen[rec[i]], want[i], rec[i]; bad = 1
      }
    }
    while (next_row <= rows && !ordered[next_row]) next_row++
    if (next_row <= rows) { print "out of order from: " rec[next_row]; bad = 1 }
    exit bad
  }' - "$records" <<'EOF' || { show; echo "the system log did not get the records as written" >&2; exit 1; }
> 1 notice Created plugin IVANTORIA_API (PTR)
> 1 notice CVantoriaApi::Initialize
> 1 notice CreatePlugin created new CVantoriaApi
> 1 notice ClientComm : Fully Connected to server
> 2 notice CVantoriaApi :GetTowerList success
> 2 notice CVantoriaApi: GetDCTSettings success
> 1 notice CVantoriaApi::SetTower - tower str = 'east-1'
> 1 notice StatusNotificationCB: status: 11
> 1 notice CVantoriaApi :StartStatsCollecting success
> 1 notice StatusNotificationCB: status: 15
> 1 notice CVantoriaApi :StopStatsCollecting success
> 1 notice CVantoriaApi : Sending Disconnect message
> 1 notice DisposePlugin PTR called#012
> 1 notice Communicator : Stopping communicator...
> 1 notice Communicator(2) : Stopping main thread
> 1 notice Communicator(2) : Main thread Stopped
> 1 notice Tear down was called for client
> 1 notice Communicator : Communicator stopped
- 1 notice SecureIPC : client object created successfully
- 1 notice TowerListNotificationCB : tower-response: 'west-1,west-2,east-1&west-2'
- 1 notice TowerListNotificationCB : tower-response: 'west-1,west-2,east-1&east-1'
- 1 notice sending msg to server/client.. msgid COMM_MSG_CHANGE_ACTIVE_TOWER
- 2 notice Communicator(2) : snd/rcv threads stopped
EOF
grep -q '^RECV session=1 COMM_MSG_CHANGE_ACTIVE_TOWER len=6 tower="east-1"$' "$work/agent.log"
echo "$(grep -cF " $tag " "$records") records of the conversation under $tag, one per statement"
