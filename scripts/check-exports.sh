#!/usr/bin/env bash
# Fails unless the module exports exactly GetAvailableInterfaces, CreatePlugin and DisposePlugin.
set -euo pipefail
lib=${1:?usage: check-exports.sh <libtidewayapi.so>}
actual=$(nm -D --defined-only "$lib" | awk '{print $2 " " $3}' | sort)
expected=$(printf 'T CreatePlugin\nT DisposePlugin\nT GetAvailableInterfaces\n')
if [ "$actual" != "$expected" ]; then
  echo "unexpected exports in $lib:"
  echo "$actual"
  exit 1
fi
echo "$lib exports exactly: $(echo "$actual" | awk '{print $2}' | tr '\n' ' ')"
