#!/usr/bin/env bash
# The virtual room's two talkers (far.txt, near.txt): far-end speech at the client rate, near-end speech at the card's
# rate, in different voices, peak-normalised. Deterministic for a given espeak-ng and sox (no dither).
set -euo pipefail
text=$(dirname "$0"); out=${1:?usage: make_speech.sh OUTDIR}; mkdir -p "$out"
espeak-ng -v en-us -s 165 -p 40 --stdout -f "$text/far.txt" |
  sox -D -t wav - -r 16000 -c 1 -b 16 "$out/far16k.wav" gain -n -3
espeak-ng -v en-gb+f3 -s 160 -p 60 --stdout -f "$text/near.txt" |
  sox -D -t wav - -r 48000 -c 1 -b 16 "$out/near48k.wav" gain -n -6
