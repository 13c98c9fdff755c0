#!/usr/bin/env bash
# What a client gets from an install, checked from a built tree:
#   tests/consumers/check_install.sh BUILD_DIR
# installs into a temporary prefix (every program starts and has a manual
# page naming each option of its --help), builds two clients against it (CMake's
# find_package; g++ with pkg-config, on the README's example), runs one with
# nothing but the prefix (a device list, then a short call in a private
# virtual room started by the installed launcher), and builds the Debian
# packages, checks their fields and installs them into a scratch root.
# Takes about a minute.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:?usage: check_install.sh BUILD_DIR}" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/taudio2-install.XXXXXX")
prefix="$work/prefix"
state="$work/room.state"
cleanup() {
  VIRTUAL_ROOM_STATE="$state" bash "$root/scripts/virtual-room.sh" stop > /dev/null 2>&1 || true
  rm -rf -- "$work"
}
trap cleanup EXIT
# Nothing from the build environment may help the clients find the libraries.
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH

# Every program in DIR/bin starts and has a manual page in DIR/share/man/man1
# that names each option its --help names.
check_programs() {
  local dir=$1 program name page option
  for program in "$dir"/bin/*; do
    name=$(basename "$program")
    page="$dir/share/man/man1/$name.1.gz"
    [ -e "$page" ] || page="$dir/share/man/man1/$name.1"
    [ -e "$page" ] || { echo "$name has no manual page" >&2; return 1; }
    "$program" --help > "$work/help.txt"
    zcat -f "$page" | sed 's/\\-/-/g' > "$work/page.txt"
    for option in $(grep -oE -- '--[a-z][a-z-]+' "$work/help.txt" | sort -u); do
      grep -qF -- "$option" "$work/page.txt" || { echo "the manual page of $name lacks $option" >&2; return 1; }
    done
  done
  echo "   $(cd "$dir/bin" && echo *): start, and their manual pages name every option of --help"
}

echo "-- install into a temporary prefix"
cmake --install "$build" --prefix "$prefix" > /dev/null
(cd "$prefix" && find . -mindepth 1 \( -type f -o -type l \) | sort | sed 's|^\./|   |')
libdir=$(ls -d "$prefix"/lib*/pkgconfig | head -n 1 | xargs dirname)
check_programs "$prefix"

echo "-- consumer 1: CMake find_package(TAudio2)"
cmake -S "$root/tests/consumers/cmake" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" > /dev/null
cmake --build "$work/cmake" > /dev/null
echo "   built $work/cmake/client"

echo "-- consumer 2: g++ \$(pkg-config --cflags --libs taudio2universaldev), the README's example"
awk '/^```cpp$/ { inside = 1; next } /^```$/ && inside { exit } inside' "$root/README.md" > "$work/readme_client.cpp"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -o "$work/readme_client" "$work/readme_client.cpp" \
  $(pkg-config --cflags --libs taudio2universaldev) -Wl,-rpath,"$(pkg-config --variable=libdir taudio2universaldev)"
unset PKG_CONFIG_PATH
echo "   built $work/readme_client"

echo "-- run consumer 1 in a virtual room, with nothing but the prefix"
export VIRTUAL_ROOM_STATE="$state"
"$prefix/bin/taudio2-virtual-room" start > /dev/null
eval "$("$prefix/bin/taudio2-virtual-room" env)"
printf 'autospawn = no\n' > "$work/pulse-client.conf"
# The device clears its recordings from $HOME: a private one.
export HOME="$work" PULSE_CLIENTCONFIG="$work/pulse-client.conf"
for attempt in 1 2 3; do
  status=0
  "$work/cmake/client" --call 3 > "$work/call.txt" 2>&1 || status=$?
  sed 's/^/   /' "$work/call.txt"
  [ "$status" -eq 3 ] || break
  echo "   the call was disturbed (late or missing periods on a loaded machine): trying again"
done
[ "$status" -eq 0 ] || { echo "the call failed (exit status $status)" >&2; exit 1; }
"$prefix/bin/taudio2-virtual-room" stop > /dev/null

echo "-- Debian packages"
(cd "$build" && cpack -G DEB -B "$work/deb" > "$work/cpack.txt" 2>&1) || { cat "$work/cpack.txt" >&2; exit 1; }
for deb in "$work"/deb/*.deb; do
  echo "   $(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
  [ -n "$(dpkg-deb -f "$deb" Depends)" ]
done
mkdir -p "$work/root/var/lib/dpkg/info" "$work/root/var/lib/dpkg/updates"
touch "$work/root/var/lib/dpkg/status"
# A scratch root has none of the dependencies: they are checked against this
# machine instead, the way apt would resolve them.
dpkg --root="$work/root" --force-depends --force-script-chrootless -i "$work"/deb/*.deb > "$work/dpkg.txt" 2>&1 \
  || { cat "$work/dpkg.txt" >&2; exit 1; }
apt-get install --simulate "$work"/deb/*.deb > "$work/apt.txt" 2>&1 \
  || { cat "$work/apt.txt" >&2; exit 1; }
env -u LD_LIBRARY_PATH "$work/root/usr/bin/taudio2call" --help > /dev/null
echo "   installed into a scratch root; taudio2call starts there; apt resolves the dependencies"
