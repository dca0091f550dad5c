#!/usr/bin/env bash
# Builds the module and shows it working: installs what is missing, configures and builds in
# build/, then loads the built libtidewayapi.so into tideway-host. Arguments go to tideway-host.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${JOBS:-$(nproc)}

"$root/scripts/install-deps.sh"

cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$root/build" -j"$jobs"

if [ "$#" -eq 0 ]; then
  set -- "$root/build/src/libtidewayapi.so"
fi
exec "$root/build/tools/tideway-host/tideway-host" "$@"
