# Sourced by scripts that need a running agent: starts tideway-agent-sim as a daemon and waits
# until it listens.
#   start_agent_sim <tideway-agent-sim> <log file> [more options...]
# Sets AGENT_SIM_PID; returns non-zero if the simulator does not listen within 10 s. The caller
# stops it with stop_agent_sim (for example from an EXIT trap).
# With AGENT_SIM_CONTROL set to a path, the simulator reads control lines from a FIFO made
# there, and AGENT_SIM_CONTROL_FD is the descriptor to write them to (its replies go to
# "$AGENT_SIM_CONTROL.out"): for example `echo "proxy" >&"$AGENT_SIM_CONTROL_FD"`.
start_agent_sim() {
  local binary=$1 log=$2
  shift 2
  rm -f "$log"
  if [ -n "${AGENT_SIM_CONTROL:-}" ]; then
    rm -f "$AGENT_SIM_CONTROL"
    mkfifo "$AGENT_SIM_CONTROL"
    "$binary" --log "$log" "$@" < "$AGENT_SIM_CONTROL" > "$AGENT_SIM_CONTROL.out" &
    AGENT_SIM_PID=$!
    # Opening the writing end lets the simulator's open of its stdin return.
    exec {AGENT_SIM_CONTROL_FD}> "$AGENT_SIM_CONTROL"
  else
    "$binary" --daemon --log "$log" "$@" &
    AGENT_SIM_PID=$!
  fi
  for _ in $(seq 100); do
    grep -q '^LISTENING' "$log" 2>/dev/null && return 0
    sleep 0.1
  done
  echo "tideway-agent-sim did not start listening (log: $log)" >&2
  return 1
}

stop_agent_sim() {
  if [ -n "${AGENT_SIM_CONTROL_FD:-}" ]; then
    exec {AGENT_SIM_CONTROL_FD}>&-
    AGENT_SIM_CONTROL_FD=
  fi
  if [ -n "${AGENT_SIM_PID:-}" ]; then
    kill "$AGENT_SIM_PID" 2>/dev/null || true
    wait "$AGENT_SIM_PID" 2>/dev/null || true
  fi
}
