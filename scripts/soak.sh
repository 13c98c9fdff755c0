#!/usr/bin/env bash
# Soak on a real sound server, outside the test suite: in a private virtual
# room, CYCLES open/close cycles (default 1000) on one device and on a fresh
# device each time, printing resident memory and open descriptors every 100
# cycles; then the server is killed under a running stream and restarted.
# Fails when an open fails, a stream is never called back, or the kill
# leaves a hung close or a callback after it.
#
#   bash scripts/soak.sh [CYCLES]        BUILD_DIR (default ./build-plain) is built first
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-plain}
cycles=${1:-1000}

cmake -S "$root" -B "$build" > /dev/null
cmake --build "$build" -j2 --target taudio2_soak > /dev/null

work=$(mktemp -d /tmp/taudio2-soak.XXXXXX)
export VIRTUAL_ROOM_STATE="$work/room.state"
room="$root/scripts/virtual-room.sh"
trap '"$room" stop > /dev/null 2>&1 || true; rm -rf -- "$work"' EXIT
# The device clears recordings in $HOME, and libpulse keeps its cookie there.
export HOME="$work"
printf 'autospawn = no\n' > "$work/client.conf"
"$room" start --echo-ms 15
eval "$("$room" env)"
export PULSE_CLIENTCONFIG="$work/client.conf"

status=0
"$build/tests/realserver/taudio2_soak" cycles "$cycles" same || status=1
"$build/tests/realserver/taudio2_soak" cycles "$cycles" fresh || status=1
export SOAK_KILL_COMMAND="kill -9 \$(sed -n 's/^pid=//p' '$VIRTUAL_ROOM_STATE')"
export SOAK_RESTART_COMMAND="bash '$room' start --echo-ms 15 > /dev/null && bash '$room' env"
"$build/tests/realserver/taudio2_soak" kill || status=1
echo "soak: $([ $status = 0 ] && echo passed || echo FAILED)"
exit $status
