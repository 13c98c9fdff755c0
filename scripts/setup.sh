#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the tools need.
# Idempotent: packages already present are skipped, the package lists are
# refreshed once per run only when something is missing.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config
  librtaudio-dev libwebrtc-audio-processing-dev libsndfile1-dev libspeexdsp-dev
  libboost-thread-dev libfmt-dev qtbase5-dev libgtest-dev
  pulseaudio pulseaudio-utils espeak-ng sox procps
  # The other servers of the real-server tests. jackd1, not jackd2: its
  # libjack-dev is the one librtaudio-dev already pulls in.
  pipewire pipewire-pulse wireplumber dbus jackd1
  # PipeWire's own libjack (reached through pw-jack, never installed as the
  # system's) and ALSA's PulseAudio plugin, for the JACK-on-PipeWire and ALSA rooms.
  pipewire-jack libasound2-plugins
  python3 python3-numpy python3-matplotlib python3-soundfile
  # The Debian packages: their build and their check.
  debhelper lintian
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
