#!/usr/bin/env bash
# The main job: installs what is needed, builds, and runs a 20-second call
# with diagnostic recording, then prints the echo-cancellation report.
#
# Without a reachable sound server (or with TAUDIO2_ROOM=1) the call runs in
# a private virtual room: the far end talks for 8 s, alone, and the room's
# microphone hears it back as echo; a near-end talker then speaks alone for
# 6 s, and for the last 6 s both talk. With a reachable server the call uses
# its devices.
#
# Arguments go to taudio2call, e.g. --aec robust.
# Environment: BUILD_DIR (default ./build), OUT_DIR (default BUILD_DIR/call),
# CALL_SECONDS (default 20), TAUDIO2_ROOM=1 to force the virtual room.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
out=${OUT_DIR:-$build/call}
seconds=${CALL_SECONDS:-20}

bash "$root/scripts/setup.sh"
cmake -S "$root" -B "$build" > /dev/null
cmake --build "$build" -j"$(nproc)" --target taudio2call

mkdir -p "$out"
"$root/tests/data/make_speech.sh" "$out/speech"
near="$out/speech/near48k.wav"
# Far end: 8 s of speech, 6 s of silence, then speech again.
far="$out/far-end.wav"
sox "$out/speech/far16k.wav" "$out/far-a.wav" trim 0 8
sox -n -r 16000 -c 1 -b 16 "$out/far-b.wav" trim 0 6
sox "$out/speech/far16k.wav" "$out/far-c.wav" trim 8
sox "$out/far-a.wav" "$out/far-b.wav" "$out/far-c.wav" "$far"
rm -f "$out"/far-[abc].wav

call=("$build/tools/taudio2call" --measure-aec --play "$far" --duration "$seconds"
      --record "$out/received.wav" "$@")
room="$root/scripts/virtual-room.sh"
if [ "${TAUDIO2_ROOM:-0}" != 1 ] && pactl info > /dev/null 2>&1; then
  echo "== call on this machine's sound server"
else
  echo "== no sound server reachable: starting a private virtual room"
  export VIRTUAL_ROOM_STATE="$out/room.state"
  trap '"$room" stop > /dev/null 2>&1 || true' EXIT
  # A short acoustic path, as with speakers beside a laptop: the server's
  # own round trip makes most of the echo's delay.
  "$room" start --echo-ms 15 --talker "$near" --talker-after 8
  eval "$("$room" env)"
  # Two output channels: the echo canceller then uses the delay measured
  # for desktop sound servers.
  call+=(--playback "Room speaker" --capture "Room microphone" --channels 2)
fi

# The device keeps its recordings in the home directory; this call's go to OUT_DIR.
HOME="$out" "${call[@]}"
"$room" stop > /dev/null 2>&1 || true

echo "== echo-cancellation report"
/usr/bin/python3 "$root/tools/aec_report.py" --dir "$out"
