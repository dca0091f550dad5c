# Sourced by scripts that need a running agent: starts tideway-agent-sim as a daemon and waits
# until it listens.
#   start_agent_sim <tideway-agent-sim> <log file> [more options...]
# Sets AGENT_SIM_PID; returns non-zero if the simulator does not listen within 10 s. The caller
# stops it with stop_agent_sim (for example from an EXIT trap).
start_agent_sim() {
  local binary=$1 log=$2
  shift 2
  rm -f "$log"
  "$binary" --daemon --log "$log" "$@" &
  AGENT_SIM_PID=$!
  for _ in $(seq 100); do
    grep -q '^LISTENING' "$log" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "tideway-agent-sim did not start listening (log: $log)" >&2
  return 1
}

stop_agent_sim() {
  if [ -n "${AGENT_SIM_PID:-}" ]; then
    kill "$AGENT_SIM_PID" 2>/dev/null || true
    wait "$AGENT_SIM_PID" 2>/dev/null || true
  fi
}
