#!/usr/bin/env bash
# Installs the Debian 12 packages the build and the tests need, and the browser test's npm
# packages (tests/browser, exactly as package-lock.json locks them). Does nothing when all are
# present and the npm packages match the lock.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

packages=(
  build-essential cmake pkg-config
  clang-14 libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libssl-dev openssl
  libboost-dev libboost-thread-dev libboost-system-dev libboost-filesystem-dev
  libboost-date-time-dev libboost-chrono-dev
  librapidxml-dev
  chromium
)
# Node.js may come from elsewhere than Debian (its npm then comes with it): only a missing
# command asks for the Debian package.
command -v node >/dev/null || packages+=(nodejs)
command -v npm >/dev/null || packages+=(npm)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -ne 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The browser test's packages: installed again whenever package-lock.json changed since the
# last `npm ci` (its checksum is kept in node_modules). No browser is downloaded: the test
# drives Debian's chromium.
browser="$root/tests/browser"
stamp="$browser/node_modules/.tideway-lock.sha256"
if ! (cd "$browser" && sha256sum --quiet --check "$stamp" >/dev/null 2>&1); then
  echo "Installing the browser test's npm packages (npm ci in tests/browser)"
  (cd "$browser" && npm ci --no-audit --no-fund --loglevel=error &&
     sha256sum package-lock.json > "$stamp")
fi

# rsyslog, which the system-log test runs as a scratch daemon of its own (tests/integration/
# host_syslog.sh). Its package would start the machine's log service and enable it for the next
# boot: a policy-rc.d forbids the start for the length of the install (unless the machine has
# one already), the unit is disabled afterwards, and no rsyslogd may be left running.
if ! dpkg-query -W -f='${Status}' rsyslog 2>/dev/null | grep -q "install ok installed"; then
  echo "Installing: rsyslog (its system service is neither started nor enabled)"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  policy=/usr/sbin/policy-rc.d
  own_policy=
  if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\n# Left by install-deps.sh while it installs rsyslog.\nexit 101\n' |
      $SUDO tee "$policy" >/dev/null
    $SUDO chmod 755 "$policy"
    own_policy=1
    trap '$SUDO rm -f "$policy"' EXIT
  fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends rsyslog
  if [ -n "$own_policy" ]; then
    $SUDO rm -f "$policy"
    trap - EXIT
  fi
  # The package enables its unit (and the syslog.service alias) for the next boot; systemctl
  # turns that off without a running systemd.
  if command -v systemctl >/dev/null; then
    $SUDO systemctl disable --quiet rsyslog.service 2>/dev/null || true
  fi
  if pgrep -x rsyslogd >/dev/null; then
    echo "install-deps.sh: the rsyslog package started rsyslogd; stop it (service rsyslog stop)" >&2
    exit 1
  fi
fi
