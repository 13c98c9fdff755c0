#!/usr/bin/env bash
# virtual-room.sh - a private sound server that behaves like a small room:
# whatever is played on its speaker comes back, delayed and quieter, on its
# microphone, mixed with an optional near-end talker.  Lets the duplex device
# and its echo canceller run against real sound on a machine without a card.
#
#   scripts/virtual-room.sh start [--server pulseaudio|pipewire|pipewire-jack|jack]
#                                 [--echo-ms N] [--echo-volume PCT]
#                                 [--jack-period FRAMES] [--jack-rate HZ]
#                                 [--talker WAV [--talker-after SEC] [--talker-loop]]
#   scripts/virtual-room.sh env          # prints export lines: eval "$(... env)"
#   scripts/virtual-room.sh talk WAV [--after SEC] [--loop]
#   scripts/virtual-room.sh status
#   scripts/virtual-room.sh stop
#
# Sourcing the file (". scripts/virtual-room.sh") only defines the function
# virtual_room, which takes the same commands; called that way, "start" also
# exports the room's environment into the calling shell and "stop" restores it.
#
# Signal path:
#   client playback -> sink "speaker" (default sink)
#   speaker.monitor -> module-loopback (latency N ms, volume PCT) -> sink "nearend"
#                      (it may lengthen itself after underruns, by 10 ms at most:
#                      the room's echo must not drift the way a call's own does)
#   talker WAV      -> paplay -> sink "nearend"
#   nearend.monitor -> module-remap-source "mic" (default source) -> client capture
# The microphone is a remapped source rather than the bare monitor so that it is
# an ordinary (non-monitor) capture device with a readable description.
#
# Servers (--server, default pulseaudio, or $VIRTUAL_ROOM_SERVER):
#   pulseaudio  the PulseAudio daemon itself.
#   pipewire    pipewire, wireplumber and pipewire-pulse under a private
#               dbus-run-session; clients reach it through its PulseAudio
#               service, and the room is built with the same pactl calls.
#   pipewire-jack  the pipewire room, whose clients also get LD_LIBRARY_PATH
#               pointing at PipeWire's own libjack (Debian's pipewire-jack, as
#               pw-jack does; the system's libjack stays as it is): a JACK
#               client started with the room's environment lands on its graph.
#   jack        jackd (jackd1) with its dummy driver at --jack-rate Hz (default
#               48000), period --jack-period frames (default 960; a start at
#               other settings restarts it); no echo path, no talker: a server
#               to open streams on.  It takes the machine's default server name
#               (RtAudio's JACK backend loses a server of any other name after
#               its first query), so one runs at a time and none beside a JACK
#               server of the user's own.
#
# Starting a room whose server died (killed, crashed) brings it back in the
# same directory, at the same address, so that its clients can reconnect.
#
# The state file ($VIRTUAL_ROOM_STATE, default /tmp/virtual-room-UID.state)
# points at the room's private directory; set VIRTUAL_ROOM_STATE to run several
# independent rooms side by side (e.g. one per test process).
#
# Exit status: 0 success (also "stop" when nothing runs), 1 failure, 2 usage error.

_VR_SPEAKER=speaker
_VR_NEAREND=nearend
_VR_MIC=mic
_VR_SPEAKER_DESC="Room speaker"
_VR_NEAREND_DESC="Room near-end talker"
_VR_MIC_DESC="Room microphone"
_VR_RATE=48000
_VR_DEFAULT_ECHO_MS=40
# pactl volumes are cubic: 50% is -18 dB, a plausible laptop speaker-to-mic loss.
_VR_DEFAULT_ECHO_VOLUME=50
_VR_DEFAULT_JACK_PERIOD=960
_VR_DEFAULT_JACK_RATE=48000

_vr_err() { echo "virtual-room: $*" >&2; }

_vr_state_file() {
  echo "${VIRTUAL_ROOM_STATE:-/tmp/virtual-room-$(id -u).state}"
}

# The process that stands for the server: what "running" checks and a test may kill.
_vr_server_comm() {
  case "$1" in
    pipewire) echo pipewire-pulse ;;
    pipewire-jack) echo pipewire ;;
    jack) echo jackd ;;
    *) echo pulseaudio ;;
  esac
}

# The folder of PipeWire's own libjack, empty when pipewire-jack is missing.
_vr_pipewire_jack_dir() {
  local d
  for d in /usr/lib/*/pipewire-0.3/jack /usr/lib64/pipewire-0.3/jack /usr/lib/pipewire-0.3/jack; do
    [ -e "$d/libjack.so.0" ] && { echo "$d"; return 0; }
  done
}

_vr_check_tools() {
  local t missing=() tools=(setsid) packages
  case "$1" in
    pulseaudio) tools+=(pulseaudio pactl pacat paplay); packages="pulseaudio and pulseaudio-utils" ;;
    pipewire|pipewire-jack)
      tools+=(pipewire wireplumber pipewire-pulse pw-metadata dbus-run-session pactl pacat paplay)
      packages="pipewire, pipewire-pulse, wireplumber, dbus and pulseaudio-utils"
      if [ "$1" = pipewire-jack ] && [ -z "$(_vr_pipewire_jack_dir)" ]; then
        missing+=("PipeWire's libjack.so.0"); packages+=", pipewire-jack"
      fi ;;
    jack) tools+=(jackd); packages="jackd1" ;;
  esac
  for t in "${tools[@]}"; do
    command -v "$t" >/dev/null 2>&1 || missing+=("$t")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    _vr_err "cannot run a $1 room: missing ${missing[*]}" \
      "(install the Debian packages $packages, e.g. scripts/setup.sh)"
    return 1
  fi
}

# Runs a PulseAudio client against the room only, whatever the caller's environment.
_vr_client() {
  env XDG_RUNTIME_DIR="$VR_DIR" PULSE_SERVER="unix:$VR_DIR/pulse/native" \
      PULSE_CLIENTCONFIG="$VR_DIR/client.conf" "$@"
}

_vr_pactl() { _vr_client pactl "$@"; }

# Serialises start/stop/talk of one room; without flock we simply go unlocked.
_vr_lock() {
  command -v flock >/dev/null 2>&1 || return 0
  exec {_VR_LOCK_FD}>"$(_vr_state_file).lock" || return 0
  flock -w 30 "$_VR_LOCK_FD" || _vr_err "could not lock $(_vr_state_file).lock, going on"
}

_vr_unlock() {
  [ -n "${_VR_LOCK_FD:-}" ] || return 0
  exec {_VR_LOCK_FD}>&-
  unset _VR_LOCK_FD
}

_vr_load_state() {
  VR_DIR="" VR_PID="" VR_ECHO_MODULE="" VR_ECHO_MS="" VR_ECHO_VOLUME="" VR_SERVER=pulseaudio VR_GROUP=""
  VR_JACK_PERIOD="" VR_JACK_RATE=""
  local f key value
  f=$(_vr_state_file)
  [ -r "$f" ] || return 1
  while IFS='=' read -r key value; do
    case "$key" in
      dir) VR_DIR=$value ;;
      pid) VR_PID=$value ;;
      echo_module) VR_ECHO_MODULE=$value ;;
      echo_ms) VR_ECHO_MS=$value ;;
      echo_volume) VR_ECHO_VOLUME=$value ;;
      server) VR_SERVER=$value ;;
      group) VR_GROUP=$value ;;
      jack_period) VR_JACK_PERIOD=$value ;;
      jack_rate) VR_JACK_RATE=$value ;;
    esac
  done <"$f"
  [ -n "$VR_DIR" ]
}

_vr_save_state() {
  local f tmp
  f=$(_vr_state_file)
  tmp="$f.$$"
  printf 'dir=%s\npid=%s\necho_module=%s\necho_ms=%s\necho_volume=%s\nserver=%s\ngroup=%s\njack_period=%s\njack_rate=%s\n' \
    "$VR_DIR" "$VR_PID" "$VR_ECHO_MODULE" "$VR_ECHO_MS" "$VR_ECHO_VOLUME" "$VR_SERVER" "$VR_GROUP" \
    "$VR_JACK_PERIOD" "$VR_JACK_RATE" >"$tmp" &&
    mv -f "$tmp" "$f"
}

# True when $1 is a live server process of the room (guards against a recycled pid).
_vr_is_server_pid() {
  [ -n "$1" ] && [ -r "/proc/$1/comm" ] && [ "$(cat "/proc/$1/comm" 2>/dev/null)" = "$(_vr_server_comm "$VR_SERVER")" ]
}

_vr_running() {
  _vr_load_state || return 1
  _vr_is_server_pid "$VR_PID" || return 1
  [ "$VR_SERVER" = jack ] || _vr_pactl info >/dev/null 2>&1
}

_vr_is_uint() { case "$1" in ''|*[!0-9]*) return 1 ;; *) return 0 ;; esac; }
_vr_is_seconds() { [[ "$1" =~ ^[0-9]+(\.[0-9]+)?$ ]]; }

# (Re)creates the speaker-to-microphone echo path with the given delay and volume.
_vr_set_echo() {
  local ms=$1 volume=$2 module input
  if [ -n "$VR_ECHO_MODULE" ]; then
    _vr_pactl unload-module "$VR_ECHO_MODULE" >/dev/null 2>&1
    VR_ECHO_MODULE=""
  fi
  module=$(_vr_pactl load-module module-loopback source="$_VR_SPEAKER.monitor" \
    sink="$_VR_NEAREND" latency_msec="$ms" max_latency_msec=$((ms + 10)) source_dont_move=true sink_dont_move=true \
    "sink_input_properties=\"media.name='Room echo path'\"") || {
    _vr_err "could not create the echo path (module-loopback latency_msec=$ms)"
    return 1
  }
  input=$(_vr_pactl list sink-inputs | awk -v m="$module" '
    /^Sink Input #/ { id = substr($3, 2) }
    /Owner Module:/ { if ($3 == m) { print id; exit } }')
  if [ -z "$input" ] || ! _vr_pactl set-sink-input-volume "$input" "$volume%"; then
    _vr_err "could not set the echo volume to $volume%"
    _vr_pactl unload-module "$module" >/dev/null 2>&1
    return 1
  fi
  VR_ECHO_MODULE=$module VR_ECHO_MS=$ms VR_ECHO_VOLUME=$volume
  _vr_save_state
}

_vr_print_devices() {
  if [ "$VR_SERVER" = jack ]; then
    echo "virtual room running (jackd pid $VR_PID, dummy driver, $VR_JACK_RATE Hz, period $VR_JACK_PERIOD frames)"
    echo "  server: JACK_DEFAULT_SERVER=default"
    return 0
  fi
  echo "virtual room running ($VR_SERVER, $(_vr_server_comm "$VR_SERVER") pid $VR_PID," \
    "echo ${VR_ECHO_MS} ms at ${VR_ECHO_VOLUME}% volume)"
  echo "  speaker, default sink:        \"$_VR_SPEAKER_DESC\" ($_VR_SPEAKER)"
  echo "  microphone, default source:   \"$_VR_MIC_DESC\" ($_VR_MIC)"
  echo "  near-end talker sink:         \"$_VR_NEAREND_DESC\" ($_VR_NEAREND)"
  echo "  server: unix:$VR_DIR/pulse/native"
  [ "$VR_SERVER" != pipewire-jack ] || echo "  JACK clients: LD_LIBRARY_PATH=$(_vr_pipewire_jack_dir)"
}

# Starts SERVER in DIR (the folder of the room it replaces) or in a new folder.
_vr_start_server() {
  local base dir=$2
  base=${TMPDIR:-/tmp}
  # The server's socket path must fit a sockaddr_un (108 bytes).
  [ ${#base} -le 70 ] || base=/tmp
  if [ -n "$dir" ]; then
    VR_DIR=$dir
    rm -f "$VR_DIR/talkers" "$VR_DIR/pulse/pid"
  else
    VR_DIR=$(mktemp -d "$base/virtual-room.XXXXXX") || { _vr_err "mktemp failed in $base"; return 1; }
  fi
  VR_SERVER=$1 VR_PID="" VR_GROUP="" VR_ECHO_MODULE="" VR_ECHO_MS="" VR_ECHO_VOLUME=""
  mkdir -p "$VR_DIR/state"
  # Clients of the room must never autospawn some other server when it is gone.
  echo "autospawn = no" >"$VR_DIR/client.conf"
  _vr_save_state || { _vr_err "cannot write $(_vr_state_file)"; return 1; }
  "_vr_start_${VR_SERVER%-jack}" "${@:3}"
}

_vr_start_pulseaudio() {
  env XDG_RUNTIME_DIR="$VR_DIR" PULSE_STATE_PATH="$VR_DIR/state" \
      PULSE_CLIENTCONFIG="$VR_DIR/client.conf" \
    pulseaudio --daemonize=yes --system=no -n --exit-idle-time=-1 \
      --realtime=yes --high-priority=yes --use-pid-file=yes \
      --log-target="newfile:$VR_DIR/pulseaudio.log" \
      --load="module-native-protocol-unix auth-anonymous=1" \
      </dev/null >/dev/null 2>&1
  _vr_await pulseaudio 50 _vr_pulseaudio_up
}
_vr_pulseaudio_up() {
  [ -s "$VR_DIR/pulse/pid" ] && VR_PID=$(cat "$VR_DIR/pulse/pid") && _vr_pactl info >/dev/null 2>&1
}

# Polls CHECK (which sets VR_PID once the server answers) every 0.1 s, TRIES
# times; a server that never answers is reported with the end of its log.
_vr_await() {
  local name=$1 tries=$2 check=$3
  for _ in $(seq "$tries"); do
    "$check" && break
    VR_PID=""
    sleep 0.1
  done
  if [ -z "$VR_PID" ]; then
    _vr_err "$name did not come up; its log ($VR_DIR/$name.log):"
    tail -n 20 "$VR_DIR/$name.log" >&2 2>/dev/null
    return 1
  fi
  _vr_save_state
}

# Runs a server in a session and process group of its own, without the
# room's lock: a daemon holding it would block every later start and stop.
_vr_detach() {
  [ -z "${_VR_LOCK_FD:-}" ] || exec {_VR_LOCK_FD}>&-
  exec setsid "$@"
}

# The three daemons of a desktop's PipeWire, in a session bus of their own and
# a process group that stop ends as a whole; every state folder is private.
_vr_start_pipewire() {
  _vr_detach env XDG_RUNTIME_DIR="$VR_DIR" XDG_STATE_HOME="$VR_DIR/state" XDG_CONFIG_HOME="$VR_DIR/config" \
      PULSE_CLIENTCONFIG="$VR_DIR/client.conf" \
    dbus-run-session -- bash -c 'pipewire & sleep 0.3; wireplumber & pipewire-pulse & wait' \
      </dev/null >"$VR_DIR/pipewire.log" 2>&1 &
  VR_GROUP=$!
  _vr_save_state
  _vr_await pipewire 100 _vr_pipewire_up
}
_vr_pipewire_up() {
  VR_PID=$(pgrep -g "$VR_GROUP" -x "$(_vr_server_comm "$VR_SERVER")" 2>/dev/null | head -n 1)
  [ -n "$VR_PID" ] && _vr_pactl info >/dev/null 2>&1
}

_vr_start_jack() {
  local period=$1 rate=$2
  _vr_detach jackd --no-realtime \
      -d dummy -r "$rate" -p "$period" </dev/null >"$VR_DIR/jackd.log" 2>&1 &
  VR_GROUP=$! VR_JACK_PERIOD=$period VR_JACK_RATE=$rate
  _vr_save_state
  _vr_await jackd 50 _vr_jack_up
}
_vr_jack_up() {
  grep -q 'dummy driver' "$VR_DIR/jackd.log" 2>/dev/null && _vr_is_server_pid "$VR_GROUP" && VR_PID=$VR_GROUP
}

_vr_build_room() {
  local ms=$1 volume=$2
  if ! { _vr_pactl load-module module-null-sink sink_name="$_VR_SPEAKER" rate=$_VR_RATE channels=2 \
           "sink_properties=\"device.description='$_VR_SPEAKER_DESC'\"" >/dev/null &&
         _vr_pactl load-module module-null-sink sink_name="$_VR_NEAREND" rate=$_VR_RATE channels=1 \
           "sink_properties=\"device.description='$_VR_NEAREND_DESC'\"" >/dev/null &&
         _vr_pactl load-module module-remap-source source_name="$_VR_MIC" master="$_VR_NEAREND.monitor" \
           "source_properties=\"device.description='$_VR_MIC_DESC'\"" >/dev/null &&
         _vr_pactl set-default-sink "$_VR_SPEAKER" &&
         _vr_pactl set-default-source "$_VR_MIC"; }; then
    _vr_err "could not build the room's devices; see $VR_DIR/pulseaudio.log"
    return 1
  fi
  _vr_set_echo "$ms" "$volume" || return 1
  # A fresh server's first stream stalls for about 2 s after its first
  # callback; take that hit here instead of in the device under test.
  head -c $((_VR_RATE * 2 * 2 * 3 / 10)) /dev/zero |
    _vr_client timeout 10 pacat --raw --device="$_VR_SPEAKER" --rate=$_VR_RATE \
      --channels=2 --format=s16le --client-name=virtual-room-prime ||
    _vr_err "priming the speaker with silence failed (the first stream may stall)"
  return 0
}

# The variables that point a client at the room, and their values.
_vr_env_names() {
  case "$VR_SERVER" in
    jack) echo JACK_DEFAULT_SERVER ;;
    pipewire-jack) echo XDG_RUNTIME_DIR PULSE_SERVER LD_LIBRARY_PATH ;;
    *) echo XDG_RUNTIME_DIR PULSE_SERVER ;;
  esac
}
_vr_env_value() {
  case "$1" in
    JACK_DEFAULT_SERVER) echo default ;;
    XDG_RUNTIME_DIR) echo "$VR_DIR" ;;
    PULSE_SERVER) echo "unix:$VR_DIR/pulse/native" ;;
    LD_LIBRARY_PATH) _vr_pipewire_jack_dir ;;
  esac
}

_vr_export_env() {
  local name saved=""
  for name in $(_vr_env_names); do
    saved+="$name=${!name-__unset__}|"
    export "$name=$(_vr_env_value "$name")"
  done
  [ -n "${VIRTUAL_ROOM_SAVED_ENV+x}" ] || VIRTUAL_ROOM_SAVED_ENV=$saved
}

_vr_restore_env() {
  [ -n "${VIRTUAL_ROOM_SAVED_ENV+x}" ] || return 0
  local entry
  local -a entries
  IFS='|' read -r -a entries <<<"$VIRTUAL_ROOM_SAVED_ENV"
  for entry in "${entries[@]}"; do
    [ -n "$entry" ] || continue
    if [ "${entry#*=}" = __unset__ ]; then unset "${entry%%=*}"; else export "$entry"; fi
  done
  unset VIRTUAL_ROOM_SAVED_ENV
}

_vr_cmd_start() {
  local ms=$_VR_DEFAULT_ECHO_MS volume=$_VR_DEFAULT_ECHO_VOLUME echo_given=0
  local talker="" talker_after=0 talker_loop=0 server=${VIRTUAL_ROOM_SERVER:-pulseaudio}
  local jack_period=$_VR_DEFAULT_JACK_PERIOD jack_rate=$_VR_DEFAULT_JACK_RATE
  while [ $# -gt 0 ]; do
    case "$1" in
      --server) server=${2-}; shift 2 || { _vr_err "--server needs a name"; return 2; } ;;
      --jack-period) jack_period=${2-}; shift 2 || { _vr_err "--jack-period needs frames"; return 2; } ;;
      --jack-rate) jack_rate=${2-}; shift 2 || { _vr_err "--jack-rate needs Hz"; return 2; } ;;
      --echo-ms) ms=${2-}; echo_given=1; shift 2 || { _vr_err "--echo-ms needs a value"; return 2; } ;;
      --echo-volume) volume=${2-}; echo_given=1; shift 2 || { _vr_err "--echo-volume needs a value"; return 2; } ;;
      --talker) talker=${2-}; shift 2 || { _vr_err "--talker needs a WAV file"; return 2; } ;;
      --talker-after) talker_after=${2-}; shift 2 || { _vr_err "--talker-after needs seconds"; return 2; } ;;
      --talker-loop) talker_loop=1; shift ;;
      *) _vr_err "start: unknown option '$1'"; return 2 ;;
    esac
  done
  if ! _vr_is_uint "$ms" || [ "$ms" -lt 1 ] || [ "$ms" -gt 2000 ]; then
    _vr_err "--echo-ms must be a whole number of milliseconds, 1..2000 (got '$ms')"; return 2
  fi
  if ! _vr_is_uint "$volume" || [ "$volume" -gt 100 ]; then
    _vr_err "--echo-volume must be a percentage, 0..100 (got '$volume')"; return 2
  fi
  if [ -n "$talker" ] && [ ! -r "$talker" ]; then
    _vr_err "talker file '$talker' is not readable"; return 2
  fi
  _vr_is_seconds "$talker_after" || { _vr_err "--talker-after must be seconds (got '$talker_after')"; return 2; }
  case "$server" in
    pulseaudio|pipewire|pipewire-jack) ;;
    jack) [ -z "$talker" ] || { _vr_err "a jack room has no talker"; return 2; } ;;
    *) _vr_err "--server must be pulseaudio, pipewire, pipewire-jack or jack (got '$server')"; return 2 ;;
  esac
  if ! _vr_is_uint "$jack_period" || [ "$jack_period" -lt 16 ] || [ "$jack_period" -gt 8192 ]; then
    _vr_err "--jack-period must be frames, 16..8192 (got '$jack_period')"; return 2
  fi
  if ! _vr_is_uint "$jack_rate" || [ "$jack_rate" -lt 8000 ] || [ "$jack_rate" -gt 192000 ]; then
    _vr_err "--jack-rate must be Hz, 8000..192000 (got '$jack_rate')"; return 2
  fi
  _vr_check_tools "$server" || return 1

  _vr_lock
  if _vr_running && [ "$VR_SERVER" != "$server" ]; then
    _vr_err "a $VR_SERVER room runs already; stop it first"
    _vr_unlock
    return 1
  fi
  if _vr_running && [ "$server" = jack ] && [ "$jack_period/$jack_rate" = "$VR_JACK_PERIOD/$VR_JACK_RATE" ]; then
    echo "virtual room already running; reusing it"
  elif _vr_running && [ "$server" != jack ]; then
    if [ "$echo_given" = 1 ] && { [ "$ms" != "$VR_ECHO_MS" ] || [ "$volume" != "$VR_ECHO_VOLUME" ]; }; then
      _vr_set_echo "$ms" "$volume" || { _vr_unlock; return 1; }
    fi
    echo "virtual room already running; reusing it"
  else
    # A room of this kind whose server is gone comes back in its own folder.
    local dir=""
    _vr_load_state && [ "$VR_SERVER" = "$server" ] && [ -d "$VR_DIR" ] && dir=$VR_DIR
    _vr_stop_quietly "$dir"
    if ! _vr_start_server "$server" "$dir" "$jack_period" "$jack_rate" ||
       { [ "$server" != jack ] && ! _vr_build_room "$ms" "$volume"; }; then
      _vr_stop_quietly
      _vr_unlock
      return 1
    fi
  fi
  _vr_unlock
  _vr_print_devices
  if [ -n "$talker" ]; then
    local opts=(--after "$talker_after")
    [ "$talker_loop" = 1 ] && opts+=(--loop)
    _vr_cmd_talk "$talker" "${opts[@]}" || return 1
  fi
  return 0
}

_vr_cmd_env() {
  if ! _vr_running; then
    _vr_err "no virtual room is running (start one with: scripts/virtual-room.sh start)"
    return 1
  fi
  local name
  for name in $(_vr_env_names); do
    printf 'export %s=%q\n' "$name" "$(_vr_env_value "$name")"
  done
}

_vr_cmd_talk() {
  local wav="" after=0 loop=0 pid
  while [ $# -gt 0 ]; do
    case "$1" in
      --after) after=${2-}; shift 2 || { _vr_err "--after needs seconds"; return 2; } ;;
      --loop) loop=1; shift ;;
      -*) _vr_err "talk: unknown option '$1'"; return 2 ;;
      *) [ -z "$wav" ] || { _vr_err "talk takes one WAV file"; return 2; }; wav=$1; shift ;;
    esac
  done
  [ -n "$wav" ] || { _vr_err "usage: virtual-room.sh talk WAV [--after SEC] [--loop]"; return 2; }
  [ -r "$wav" ] || { _vr_err "talker file '$wav' is not readable"; return 2; }
  _vr_is_seconds "$after" || { _vr_err "--after must be seconds (got '$after')"; return 2; }
  _vr_running || { _vr_err "no virtual room is running"; return 1; }
  [ "$VR_SERVER" != jack ] || { _vr_err "a jack room has no talker"; return 1; }

  # Own session and process group, so that stop can end the loop and its
  # paplay together; no file descriptor of the caller is kept open.
  local pidfile="$VR_DIR/talker.$$.$RANDOM.pid"
  # shellcheck disable=SC2016  # the inner script expands its own arguments
  _vr_client setsid bash -c '
      echo $$ >"$1"
      sleep "$2"
      while :; do
        paplay --device="$3" --client-name=virtual-room-talker "$4" || exit 1
        [ "$5" = 1 ] || exit 0
      done' virtual-room-talker "$pidfile" "$after" "$_VR_NEAREND" "$wav" "$loop" \
    </dev/null >>"$VR_DIR/talker.log" 2>&1 &
  for _ in $(seq 50); do
    [ -s "$pidfile" ] && break
    sleep 0.02
  done
  pid=$(cat "$pidfile" 2>/dev/null)
  rm -f "$pidfile"
  [ -n "$pid" ] || { _vr_err "the talker did not start; see $VR_DIR/talker.log"; return 1; }
  echo "$pid" >>"$VR_DIR/talkers"
  local how=once
  [ "$loop" = 1 ] && how=looping
  echo "talker: playing $wav into \"$_VR_NEAREND_DESC\" ($how, after $after s, pid $pid)"
}

# Ends the recorded room, if any, and forgets it, unless KEEP names its
# folder (to start the room again there); prints nothing on success.
_vr_stop_quietly() {
  local keep=${1-}
  _vr_load_state || { rm -f "$(_vr_state_file)"; return 0; }
  local pid
  if [ -r "$VR_DIR/talkers" ]; then
    while read -r pid; do
      _vr_is_uint "$pid" && kill -TERM -- "-$pid" 2>/dev/null
    done <"$VR_DIR/talkers"
  fi
  if [ "$VR_SERVER" = pulseaudio ] && _vr_is_server_pid "$VR_PID"; then
    _vr_client timeout 5 pactl exit >/dev/null 2>&1
    for _ in $(seq 50); do
      _vr_is_server_pid "$VR_PID" || break
      sleep 0.1
    done
  fi
  # The server's whole process group (pipewire's three daemons and their bus).
  local target=$VR_PID
  _vr_is_uint "$VR_GROUP" && target=-$VR_GROUP
  if _vr_is_server_pid "$VR_PID" || { _vr_is_uint "$VR_GROUP" && kill -0 -- "-$VR_GROUP" 2>/dev/null; }; then
    kill -TERM -- "$target" 2>/dev/null
    for _ in $(seq 30); do
      kill -0 -- "$target" 2>/dev/null || break
      sleep 0.1
    done
    kill -KILL -- "$target" 2>/dev/null
  fi
  if _vr_is_server_pid "$VR_PID"; then
    _vr_err "$(_vr_server_comm "$VR_SERVER") pid $VR_PID would not exit"
    return 1
  fi
  [ -z "$keep" ] || return 0
  case "$VR_DIR" in
    */virtual-room.??????) rm -rf -- "$VR_DIR" ;;
  esac
  rm -f "$(_vr_state_file)"
  VR_DIR="" VR_PID=""
}

_vr_cmd_stop() {
  [ $# -eq 0 ] || { _vr_err "stop takes no arguments"; return 2; }
  local rc=0
  _vr_lock
  if _vr_load_state; then
    _vr_stop_quietly && echo "virtual room stopped" || rc=1
  else
    echo "virtual room not running"
  fi
  _vr_unlock
  return $rc
}

_vr_cmd_status() {
  if _vr_running; then
    _vr_print_devices
  else
    echo "virtual room not running"
    return 1
  fi
}

_vr_usage() {
  cat <<'EOF'
usage: virtual-room.sh start [--server pulseaudio|pipewire|pipewire-jack|jack]
                             [--jack-period FRAMES] [--jack-rate HZ]
                             [--echo-ms N] [--echo-volume PCT]
                             [--talker WAV [--talker-after SEC] [--talker-loop]]
       virtual-room.sh env | status | stop
       virtual-room.sh talk WAV [--after SEC] [--loop]

A private sound server (PulseAudio by default, PipeWire through its PulseAudio
service, the same with PipeWire's JACK library for JACK clients, or JACK with
its dummy driver and no echo path): its default sink "Room speaker" is heard,
N ms later (default 40) at PCT% volume (default 50% = -18 dB), on its default
source "Room microphone", together with any WAV played by "talk" (the near-end
talker).
Use it from a shell with:  eval "$(scripts/virtual-room.sh env)"
EOF
}

_vr_dispatch() {
  local cmd=${1-}
  [ $# -gt 0 ] && shift
  case "$cmd" in
    start)
      _vr_cmd_start "$@" || return $?
      # As a function in the caller's shell, hand it the room right away.
      [ "${_VR_AS_SCRIPT:-0}" = 1 ] || _vr_export_env
      ;;
    stop)
      _vr_cmd_stop "$@" || return $?
      [ "${_VR_AS_SCRIPT:-0}" = 1 ] || _vr_restore_env
      ;;
    env) _vr_cmd_env ;;
    talk) _vr_cmd_talk "$@" ;;
    status) _vr_cmd_status ;;
    -h|--help|help) _vr_usage ;;
    *) _vr_usage >&2; return 2 ;;
  esac
}

# Called through "||" so that a caller's "set -e" cannot end its shell halfway
# through a start or stop; failures come back as the return status.
virtual_room() {
  local rc=0
  _vr_dispatch "$@" || rc=$?
  return $rc
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  _VR_AS_SCRIPT=1
  virtual_room "$@"
  exit $?
fi
