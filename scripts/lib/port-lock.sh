# shellcheck shell=bash
# Sourced by scripts that start the agent simulator on the product's IPC port (5003, socket
# under /opt), which only one run on the machine may use at a time.
#   with_port_lock <command> [args...]
# runs the command holding /tmp/tideway-product-port.lock (flock), or straight away when a
# process it descends from holds that lock already (a caller that wrapped the whole run in
# `flock /tmp/tideway-product-port.lock ...`): taking it again there would wait for ever.
with_port_lock() {
  local lock=/tmp/tideway-product-port.lock
  touch "$lock"
  local inode holders pid
  inode=$(stat -c %i "$lock")
  # /proc/locks: "1: FLOCK  ADVISORY  WRITE <pid> <major>:<minor>:<inode> 0 EOF"; waiters
  # have "->" in the second field.
  holders=$(awk -v inode="$inode" '$2 == "FLOCK" && $6 ~ (":" inode "$") { print $5 }' /proc/locks)
  pid=$$
  while [ -n "$pid" ] && [ "$pid" -gt 1 ]; do
    for holder in $holders; do
      if [ "$holder" = "$pid" ]; then
        "$@"
        return
      fi
    done
    pid=$(awk '/^PPid:/ { print $2 }' "/proc/$pid/status" 2>/dev/null)
  done
  flock "$lock" "$@"
}
