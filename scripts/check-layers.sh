#!/usr/bin/env bash
# Fails if a file includes a folder above its own. The layers, lowest first:
#   common            the trace log, utilities, locks: includes no other folder of the module
#   config            the profile: may include common
#   ipc               the IPC library (ipc/): independent of the module's code
#   comm              the communicator: common, config, ipc
#   api               the client API: the above and comm
#   presentation      the UI documents and the presentation plug-in: the above and api
#   plugin            the exported functions: everything
# Public headers (include/) may be included anywhere; tests, tools and benchmarks are not checked.
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}

declare -A allowed=(
  [common]="common"
  [config]="common config"
  [ipc]="ipc"
  [comm]="common config ipc comm"
  [api]="common config ipc comm api"
  [presentation]="common config ipc comm api presentation"
  [plugin]="common config ipc comm api presentation plugin"
)
layers="common config ipc comm api presentation plugin"

status=0
check() {  # check <layer> <file>
  local layer=$1 file=$2 target
  while IFS= read -r target; do
    for other in $layers; do
      if [[ $target == "$other/"* && " ${allowed[$layer]} " != *" $other "* ]]; then
        echo "${file#"$root"/}: $layer includes \"$target\" of the higher layer $other"
        status=1
      fi
    done
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
}

for layer in common config comm api presentation plugin; do
  [ -d "$root/src/$layer" ] || continue
  while IFS= read -r -d '' file; do check "$layer" "$file"; done \
    < <(find "$root/src/$layer" \( -name '*.h' -o -name '*.cpp' \) -print0)
done
while IFS= read -r -d '' file; do check ipc "$file"; done \
  < <(find "$root/ipc" \( -name '*.h' -o -name '*.cpp' \) -print0)

[ $status -eq 0 ] && echo "every include points down the layers"
exit $status
