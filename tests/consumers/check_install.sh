#!/usr/bin/env bash
# What a client gets from an install:  tests/consumers/check_install.sh BUILD_DIR
# Installs the build into a temporary prefix, and the Debian packages built
# from the source tree (kept in BUILD_DIR/debian-packages) into a scratch root.
# Against each: every program starts and its manual page names all its
# options; two clients build (find_package; g++ and pkg-config on the
# README's example) and run, with nothing but that prefix or root, in a
# private virtual room. A few minutes, mostly the packages.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:?usage: check_install.sh BUILD_DIR}" && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/taudio2-install.XXXXXX")
state="$work/room.state"
trap 'VIRTUAL_ROOM_STATE="$state" bash "$root/scripts/virtual-room.sh" stop > /dev/null 2>&1 || true; rm -rf -- "$work"' EXIT
# Nothing from the build environment may help the clients find the libraries.
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH
fail() { echo "$*" >&2; exit 1; }
warnflags=(-Wall -Wextra -Wpedantic -Werror)

check_programs() {   # DIR: DIR/bin/* start; DIR/share/man/man1 names every option of their --help
  local dir=$1 program name page option
  for program in "$dir"/bin/*; do
    name=$(basename "$program")
    page="$dir/share/man/man1/$name.1.gz"
    [ -e "$page" ] || page="$dir/share/man/man1/$name.1"
    [ -e "$page" ] || fail "$name has no manual page"
    "$program" --help > "$work/help.txt"
    zcat -f "$page" | sed 's/\\-/-/g' > "$work/page.txt"
    while read -r option; do
      grep -qF -- "$option" "$work/page.txt" || fail "the manual page of $name lacks $option"
    done < <(grep -oE -- '--[a-z][a-z-]+' "$work/help.txt" | sort -u)
  done
  echo "   $(cd "$dir/bin" && echo *): start, and their manual pages name every option of --help"
}

build_clients() {   # NAME CMAKE_PREFIX PC_DIR [LINKER FLAGS]: both clients into $work/NAME
  local name=$1 cmake_prefix=$2 pc_dir=$3
  shift 3
  cmake -S "$root/tests/consumers/cmake" -B "$work/$name/cmake" -DCMAKE_PREFIX_PATH="$cmake_prefix" \
    -DCMAKE_CXX_FLAGS="${warnflags[*]}" > /dev/null
  cmake --build "$work/$name/cmake" > /dev/null
  # shellcheck disable=SC2046
  g++ -std=c++17 "${warnflags[@]}" -o "$work/$name/readme_client" "$work/readme_client.cpp" \
    $(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs taudio2universaldev) "$@"
  echo "   built $name/cmake/client with find_package(TAudio2), $name/readme_client with pkg-config"
}

run_client() {   # COMMAND...: in the room; a call disturbed by a loaded machine (status 3) is retried
  local status
  for _ in 1 2 3; do
    status=0
    "$@" > "$work/run.txt" 2>&1 || status=$?
    sed 's/^/   /' "$work/run.txt"
    [ "$status" -eq 3 ] || break
    echo "   the call was disturbed (late or missing periods on a loaded machine): trying again"
  done
  [ "$status" -eq 0 ] || fail "$* failed (exit status $status)"
}

awk '/^```cpp$/ { inside = 1; next } /^```$/ && inside { exit } inside' "$root/README.md" > "$work/readme_client.cpp"

echo "-- install into a temporary prefix"
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" > /dev/null
(cd "$prefix" && find . -mindepth 1 \( -type f -o -type l \) | sort | sed 's|^\./|   |')
libdir=$(ls -d "$prefix"/lib*/pkgconfig | head -n 1 | xargs dirname)
check_programs "$prefix"
build_clients prefix "$prefix" "$libdir/pkgconfig" -Wl,-rpath,"$libdir"

echo "-- Debian packages, built from the source tree"
packages="$build/debian-packages"
mkdir -p "$work/src/taudio2"
# The source as a fresh clone has it, with the working tree's changes (a deleted file is
# only warned about) and without a build folder of dpkg's.
(cd "$root" && git ls-files -z --cached --others --exclude-standard -- . ':!obj-*' \
  | xargs -0 tar -cf - --ignore-failed-read --) | tar -xf - -C "$work/src/taudio2"
(cd "$work/src/taudio2" && DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage -b -us -uc) \
  > "$work/dpkg-buildpackage.txt" 2>&1 || { tail -n 50 "$work/dpkg-buildpackage.txt" >&2; exit 1; }
rm -rf "$packages" && mkdir -p "$packages"
cp "$work"/src/*.deb "$work"/src/*.changes "$work"/src/*.buildinfo "$packages"/
for deb in "$packages"/*.deb; do echo "   $(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"; done
droot="$work/root"
mkdir -p "$droot/var/lib/dpkg/info" "$droot/var/lib/dpkg/updates" && touch "$droot/var/lib/dpkg/status"
# A scratch root has none of the dependencies: apt checks them against this machine, as it would resolve them.
dpkg --root="$droot" --force-depends --force-script-chrootless -i "$packages"/*.deb > "$work/dpkg.txt" 2>&1 \
  || { cat "$work/dpkg.txt" >&2; exit 1; }
apt-get install --simulate "$packages"/*.deb > "$work/apt.txt" 2>&1 || { cat "$work/apt.txt" >&2; exit 1; }
echo "   installed into a scratch root; apt resolves the dependencies"
syslibdir="$droot/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)"
# libshared is private: beside the system's libraries it could collide.
[ -e "$syslibdir/taudio2/libshared.so.1" ] && [ ! -e "$syslibdir/libshared.so.1" ] \
  || fail "libshared.so.1 is not (only) in $syslibdir/taudio2"
# The packages take their version from debian/changelog, the .pc files from CMake.
version=$(dpkg-deb -f "$packages"/libtaudio2universaldev1_*.deb Version)
[ "$version" = "$(PKG_CONFIG_PATH="$syslibdir/pkgconfig" pkg-config --modversion taudio2universaldev)" ] \
  || fail "debian/changelog's version $version is not the project's"
echo "   libshared.so.1 is private to usr/lib/*/taudio2; the packages' version is the project's"
check_programs "$droot/usr"
# No run path for the README's client here: the loader's default directory
# (LD_LIBRARY_PATH below) has the libraries, the device library's run path libshared.
build_clients packages "$droot/usr" "$syslibdir/pkgconfig"

echo "-- run the clients in a virtual room, each with nothing but its prefix or root"
export VIRTUAL_ROOM_STATE="$state"
"$prefix/bin/taudio2-virtual-room" start > /dev/null
eval "$("$prefix/bin/taudio2-virtual-room" env)"
printf 'autospawn = no\n' > "$work/pulse-client.conf"
# The device clears its recordings from $HOME: a private one.
export HOME="$work" PULSE_CLIENTCONFIG="$work/pulse-client.conf"
echo "   prefix:"
run_client "$work/prefix/cmake/client" --call 3
run_client "$work/prefix/readme_client"
echo "   packages:"
run_client env LD_LIBRARY_PATH="$syslibdir" "$work/packages/cmake/client" --call 3
run_client env LD_LIBRARY_PATH="$syslibdir" "$work/packages/readme_client"
"$prefix/bin/taudio2-virtual-room" stop > /dev/null
