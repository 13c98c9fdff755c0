#!/usr/bin/env bash
# What a client gets from an install:  tests/consumers/check_install.sh BUILD_DIR
# The build in a temporary prefix and the Debian packages (kept in BUILD_DIR/debian-packages) in a scratch root:
# each program's manual page names all its options; the README's example builds (with find_package, and with
# pkg-config as the README says) and runs with nothing but that prefix or root. A few minutes, mostly the packages.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:?usage: check_install.sh BUILD_DIR}" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/taudio2-install.XXXXXX")
stop_room() { VIRTUAL_ROOM_STATE="$work/room.state" bash "$root/scripts/virtual-room.sh" stop > /dev/null 2>&1 || true; }
trap 'stop_room; rm -rf -- "$work"' EXIT
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH   # nothing from the build may help the clients
fail() { echo "$*" >&2; exit 1; }
flags=(-Wall -Wextra -Wpedantic -Werror)
awk '/^```cpp$/ { inside = 1; next } /^```$/ && inside { exit } inside' "$root/README.md" > "$work/readme_client.cpp"

check() {   # NAME DIR PC_DIR [LINKER FLAGS]: DIR's programs and manual pages; the client both ways into $work/NAME
  local name=$1 dir=$2 pc_dir=$3 program page help option
  shift 3
  for program in "$dir"/bin/*; do
    page=$(zcat -f "$dir/share/man/man1/$(basename "$program")".1* | sed 's/\\-/-/g') \
      || fail "$program has no manual page"
    help=$("$program" --help)
    for option in $(grep -oE -- '--[a-z][a-z-]+' <<< "$help" | sort -u); do
      grep -qF -- "$option" <<< "$page" || fail "the manual page of $program lacks $option"
    done
  done
  cmake -S "$root/tests/consumers/cmake" -B "$work/$name/cmake" -DCMAKE_PREFIX_PATH="$dir" \
    -DCLIENT_SOURCE="$work/readme_client.cpp" -DCMAKE_CXX_FLAGS="${flags[*]}" > /dev/null
  cmake --build "$work/$name/cmake" > /dev/null
  # shellcheck disable=SC2046
  g++ -std=c++17 "${flags[@]}" -o "$work/$name/readme_client" "$work/readme_client.cpp" \
    $(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs taudio2universaldev) "$@"
  echo "   $(cd "$dir/bin" && echo *): start and their manual pages name every option; the client built both ways"
}

# COMMAND...: in the room. The README's client records its 5 s call: the recording shows that the stream ran (for 2 s
# at least, as a fresh server may hold a first stream back for about 2 s).
run_client() {
  rm -f "$HOME/capture_aec.wav"
  "$@" > /dev/null || fail "$* failed (exit status $?)"
  awk -v s="$(soxi -D "$HOME/capture_aec.wav")" 'BEGIN { exit !(s >= 2) }' \
    || fail "$*: its 5 s call recorded $(soxi -D "$HOME/capture_aec.wav" 2>&1) s"
}

echo "-- install into a temporary prefix"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" > /dev/null
libdir=$(dirname "$(ls -d "$prefix"/lib*/pkgconfig | head -n 1)")
check prefix "$prefix" "$libdir/pkgconfig" -Wl,-rpath,"$libdir"

echo "-- Debian packages, built from the source tree"
packages="$build/debian-packages"
# The source as a fresh clone has it, with the working tree's changes (a deleted file is only warned about)
# and without a build folder of dpkg's.
mkdir -p "$work/src/taudio2"
(cd "$root" && git ls-files -z --cached --others --exclude-standard -- . ':!obj-*' \
  | xargs -0 tar -cf - --ignore-failed-read --) | tar -xf - -C "$work/src/taudio2"
(cd "$work/src/taudio2" && DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage -b -us -uc) \
  > "$work/dpkg-buildpackage.txt" 2>&1 || { tail -n 50 "$work/dpkg-buildpackage.txt" >&2; exit 1; }
rm -rf "$packages" && mkdir -p "$packages"
cp "$work"/src/*.deb "$work"/src/*.changes "$work"/src/*.buildinfo "$packages"/
droot="$work/root"
mkdir -p "$droot/var/lib/dpkg/info" "$droot/var/lib/dpkg/updates" && touch "$droot/var/lib/dpkg/status"
# A scratch root has none of the dependencies: apt checks them against this machine, as it would resolve them.
dpkg --root="$droot" --force-depends --force-script-chrootless -i "$packages"/*.deb > "$work/dpkg.txt" 2>&1 \
  || { cat "$work/dpkg.txt" >&2; exit 1; }
apt-get install --simulate "$packages"/*.deb > "$work/apt.txt" 2>&1 || { cat "$work/apt.txt" >&2; exit 1; }
syslibdir="$droot/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
# libshared is private: beside the system's libraries it could collide.
[ -e "$syslibdir/taudio2/libshared.so.1" ] && [ ! -e "$syslibdir/libshared.so.1" ] \
  || fail "libshared.so.1 is not (only) in $syslibdir/taudio2"
# The packages take their version from debian/changelog, the .pc files from CMake.
version=$(dpkg-deb -f "$packages"/libtaudio2universaldev1_*.deb Version)
[ "$version" = "$(PKG_CONFIG_PATH="$syslibdir/pkgconfig" pkg-config --modversion taudio2universaldev)" ] \
  || fail "debian/changelog's version $version is not the project's"
# No run path for the README's client here: the loader's default directory (LD_LIBRARY_PATH below) has the
# libraries, the device library's run path libshared.
check packages "$droot/usr" "$syslibdir/pkgconfig"

echo "-- run the clients in a virtual room, each with nothing but its prefix or root"
export VIRTUAL_ROOM_STATE="$work/room.state"
"$prefix/bin/taudio2-virtual-room" start > /dev/null
eval "$("$prefix/bin/taudio2-virtual-room" env)"
printf 'autospawn = no\n' > "$work/pulse-client.conf"
# The device clears its recordings from $HOME: a private one.
export HOME="$work" PULSE_CLIENTCONFIG="$work/pulse-client.conf"
run_client "$work/prefix/cmake/client"
run_client "$work/prefix/readme_client"
run_client env LD_LIBRARY_PATH="$syslibdir" "$work/packages/cmake/client"
run_client env LD_LIBRARY_PATH="$syslibdir" "$work/packages/readme_client"
