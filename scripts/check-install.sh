#!/usr/bin/env bash
# Checks what reaches users: the installation and the Debian package, each used by a host built
# outside the tree.
#   scripts/check-install.sh [BUILD_DIR]     (default: build/, a configured and built tree)
#  1. `cmake --install` of BUILD_DIR into a scratch prefix; the installed tideway-host finds its
#     module and catalogue there.
#  2. examples/host, copied out of the tree and compiled with nothing but
#     `pkg-config --cflags --libs tidewayapi`, opens the module that pkg-config names, against the
#     installed tideway-agent-sim: it must see the setup notice and status 9.
#  3. cpack refuses BUILD_DIR when it carries the development pass phrase.
#  4. build-package/: the shipped targets only, configured for /usr with a scratch pass phrase;
#     `cpack -G DEB`; the development phrase is in none of its binaries, the scratch one is.
#  5. `dpkg -x` into a scratch root: Depends names exactly the packages of the libraries that the
#     binaries load; the same host, compiled against the root through pkg-config and through
#     find_package, runs against the root's simulator and module. Prints the package's files.
# It starts the simulator on the product's IPC port: run it under the port lock
# (scripts/lib/port-lock.sh; scripts/test.sh does).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
package_build="$root/build-package"
jobs=${JOBS:-$(nproc)}
. "$root/scripts/lib/agent-sim.sh"

work=$(mktemp -d)
# The profile under /opt is obfuscated with the pass phrase of the module that wrote it, the
# development phrase of the test builds; the package's module, with a phrase of its own, cannot
# read it and refuses to start. While the package's module runs, the profile files wait beside
# their folder, and the module writes its default profile; then they come back.
profile_home=/opt/tarvex/brenlo/tideway
profile_files=(config Tideway_ServiceProfile.wso)
aside="$profile_home/.check-install-aside"
hide_profile() {
  rm -rf "$aside"
  mkdir -p "$aside"
  for f in "${profile_files[@]}"; do
    if [ -e "$profile_home/$f" ]; then mv "$profile_home/$f" "$aside/"; fi
  done
}
restore_profile() {
  [ -d "$aside" ] || return 0
  for f in "${profile_files[@]}"; do
    rm -rf "${profile_home:?}/$f"
    if [ -e "$aside/$f" ]; then mv "$aside/$f" "$profile_home/"; fi
  done
  rmdir "$aside"
}
cleanup() {
  stop_agent_sim
  restore_profile
  rm -rf "$work"
}
trap cleanup EXIT
step() { printf -- '--- %s\n' "$*"; }
fail() {
  echo "check-install: $*" >&2
  exit 1
}

# Copies examples/host out of the tree and compiles it with the flags pkg-config gives.
#   build_host <output> [pkg-config options...]
build_host() {
  local out=$1
  shift
  mkdir -p "$work/src"
  cp "$root/examples/host/example-host.cpp" "$root/examples/host/CMakeLists.txt" "$work/src/"
  # shellcheck disable=SC2046  # the flags are words
  c++ -std=c++17 -Wall -Wextra -Werror -o "$out" "$work/src/example-host.cpp" \
    $(pkg-config "$@" --cflags --libs tidewayapi)
}

# Runs a host against the simulator <agent>: it must end with status 0 within its time-out.
#   run_host <agent> <host> <module> <catalogue> <name>
run_host() {
  local agent=$1 host=$2 module=$3 catalogue=$4 name=$5
  start_agent_sim "$agent" "$work/$name.agent.log"
  if ! timeout 60 "$host" "$module" "$catalogue" > "$work/$name.out" 2>&1; then
    cat "$work/$name.out" "$work/$name.agent.log" >&2
    fail "$name: the host did not see the setup notice and status 9"
  fi
  stop_agent_sim
  AGENT_SIM_PID=
  tail -n1 "$work/$name.out"
}

step "cmake --install into a scratch prefix"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" > "$work/install.log"
pc=$(find "$prefix" -name tidewayapi.pc)
[ -n "$pc" ] || fail "no tidewayapi.pc under $prefix"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$pc")
module=$(pkg-config --variable=module tidewayapi)
[ "$(readlink -f "$module")" = "$(find "$prefix" -name 'libtidewayapi.so.*.*')" ] ||
  fail "pkg-config's module $module is not the installed module"
"$root/scripts/check-exports.sh" "$module"
for tool in tideway-host tideway-agent-sim tideway-obfuscate; do
  [ -x "$prefix/bin/$tool" ] || fail "$tool is not installed in $prefix/bin"
done
[ -f "$prefix/share/tideway/web/index.html" ] || fail "the web page is not installed"
# Run from the prefix, the harness takes the installed module and catalogue.
"$prefix/bin/tideway-host" > "$work/host-check.out"
grep -qxF "Loaded $prefix/bin/../${module#"$prefix/"}" "$work/host-check.out" ||
  fail "the installed tideway-host did not load the installed module: $(head -n1 "$work/host-check.out")"
# Its catalogue too: the setup notice carries the catalogue's texts.
"$prefix/bin/tideway-host" --presentation < /dev/null > "$work/host-presentation.out" 2>&1 ||
  { cat "$work/host-presentation.out"; fail "the installed tideway-host --presentation failed"; }
grep -q '<label id="simple_tile_label" value="Tideway:"/>' "$work/host-presentation.out" ||
  fail "the installed tideway-host did not translate with the installed catalogue"

step "a host built outside the tree with pkg-config, against the installation"
build_host "$work/host"
run_host "$prefix/bin/tideway-agent-sim" "$work/host" "$module" \
  "$prefix/share/tideway/tideway-host.catalogue" prefix

step "packaging a build with the development pass phrase is refused"
if (cd "$build" && cpack -G DEB) > "$work/refused.log" 2>&1; then
  fail "cpack packaged a build that uses the development pass phrase"
fi
grep -q "Refusing to package" "$work/refused.log" || { cat "$work/refused.log"; fail "no refusal"; }

step "the package: a build with its own pass phrase, then cpack -G DEB"
# A phrase of 256 printable characters, written for this run only.
phrase="$work/phrase.txt"
LC_ALL=C tr -dc 'A-Za-z0-9!#%+,.:;=?@^_~' < /dev/urandom | head -c 256 > "$phrase" || true
[ "$(wc -c < "$phrase")" -eq 256 ] || fail "could not write a scratch pass phrase"
cmake -S "$root" -B "$package_build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DTIDEWAY_BUILD_TESTS=OFF -DTIDEWAY_BUILD_BENCH=OFF \
  -DTIDEWAY_PASSPHRASE_FILE="$phrase" > "$work/package-configure.log" 2>&1 ||
  { cat "$work/package-configure.log"; fail "configuring $package_build failed"; }
if grep -q "DEVELOPMENT PASS PHRASE" "$work/package-configure.log"; then
  fail "a build with its own pass phrase warns about the development one"
fi
cmake --build "$package_build" -j"$jobs"
(cd "$package_build" && cpack -G DEB) > "$work/cpack.log" ||
  { cat "$work/cpack.log"; fail "cpack failed"; }
deb=$(ls "$package_build"/tideway_*.deb)

step "dpkg -x $(basename "$deb") into a scratch root"
droot="$work/root"
dpkg -x "$deb" "$droot"
# The phrase is stored whole in the binaries that use it.
binaries=("$droot"/usr/lib/*/libtidewayapi.so.*.* "$droot"/usr/bin/*)
grep -qF -f "$phrase" "${binaries[0]}" || fail "the scratch pass phrase is not in the module"
if grep -lF -f "$root/cmake/dev-passphrase.txt" "${binaries[@]}"; then
  fail "the development pass phrase is in the package"
fi
# Depends must name the package of every library the binaries link (NEEDED), and nothing else.
sonames=$(for b in "${binaries[@]}"; do
  readelf -d "$b" | awk '/NEEDED/ { gsub(/[][]/, "", $5); print $5 }'
done | sort -u)
needed=$(ldd "${binaries[@]}" | awk '$2 == "=>" && $3 ~ /^\// { print $1, $3 }' | sort -u |
  while read -r soname lib; do
    grep -qxF "$soname" <<< "$sonames" || continue
    real=$(readlink -f "$lib")
    # Debian 12 lists the base libraries under /lib.
    dpkg -S "$real" 2>/dev/null || dpkg -S "${real#/usr}" 2>/dev/null || echo "(no package):$real"
  done | cut -d: -f1 | sort -u)
declared=$(dpkg-deb -f "$deb" Depends | tr ',' '\n' | awk '{ print $1 }' | sort -u)
if [ "$needed" != "$declared" ]; then
  diff <(echo "$needed") <(echo "$declared") >&2 || true
  fail "Depends (right) does not match the packages of the loaded libraries (left)"
fi
echo "Depends: $(dpkg-deb -f "$deb" Depends)"

step "the same host against the unpacked package"
hide_profile
PKG_CONFIG_PATH=$(dirname "$(find "$droot" -name tidewayapi.pc)")
pkg_root=(--define-variable=prefix="$droot/usr")
module=$(pkg-config "${pkg_root[@]}" --variable=module tidewayapi)
[[ -f "$module" && "$module" == "$droot"/* ]] || fail "module $module is not in $droot"
build_host "$work/host-deb" "${pkg_root[@]}"
run_host "$droot/usr/bin/tideway-agent-sim" "$work/host-deb" "$module" \
  "$droot/usr/share/tideway/tideway-host.catalogue" deb
# find_package finds the root from the place of its config file.
cmake -S "$work/src" -B "$work/host-cmake" -DCMAKE_PREFIX_PATH="$droot/usr" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" > "$work/host-cmake.log" ||
  { cat "$work/host-cmake.log"; fail "find_package(tidewayapi) failed"; }
cmake --build "$work/host-cmake" > "$work/host-cmake-build.log" ||
  { cat "$work/host-cmake-build.log"; fail "the host did not build with find_package"; }
[ "$(cat "$work/host-cmake/module-path.txt")" = "$module" ] ||
  fail "find_package's module $(cat "$work/host-cmake/module-path.txt") is not $module"
run_host "$droot/usr/bin/tideway-agent-sim" "$work/host-cmake/example-host" "$module" \
  "$droot/usr/share/tideway/tideway-host.catalogue" deb-cmake

restore_profile

step "files of $(basename "$deb")"
dpkg -c "$deb"
echo "the installation and the package each served a host built outside the tree"
