#!/usr/bin/env bash
# The virtual room's two talkers: far-end speech at the client rate, near-end speech at the card's rate, in
# different voices, peak-normalised. Deterministic for a given espeak-ng and sox (no dither).
set -euo pipefail
out=${1:?usage: make_speech.sh OUTDIR}
mkdir -p "$out"
espeak-ng -v en-us -s 165 -p 40 --stdout "Good morning everyone, thank you for joining the call today. \
Let me start with a short summary of what happened since our last meeting. \
The new release went out on Tuesday, and the first reports from customers are good. \
We fixed the two crashes that were reported in the audio settings, and the echo problem on laptops is much better now. \
There are still a few open questions about the headset support, which I would like to go through with you in detail. \
After that we can talk about the plan for the next month, and about who takes care of the documentation." |
  sox -D -t wav - -r 16000 -c 1 -b 16 "$out/far16k.wav" gain -n -3
espeak-ng -v en-gb+f3 -s 160 -p 60 --stdout "Yes, I can hear you well, and I have a question about the headsets. \
Which models did you test last week, and did you try the wireless ones too? \
Some of our users told us that the microphone sounds very quiet, \
especially when they use the built in sound card of an older computer. \
I think we should measure that before we promise anything." |
  sox -D -t wav - -r 48000 -c 1 -b 16 "$out/near48k.wav" gain -n -6
