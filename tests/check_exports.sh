#!/usr/bin/env bash
# The device library exports its class and nothing else: no registry, no
# converter, no template instances that clients could come to rely on. The
# one exception are webrtc's option keys, which must be shared with webrtc.
set -euo pipefail
lib=${1:?usage: check_exports.sh LIBRARY}
symbols=$(nm -DC --defined-only "$lib" | cut -d' ' -f3-)
echo "$symbols"
stray=$(echo "$symbols" | grep -v -E '^((typeinfo|typeinfo name|vtable) for )?tamrel::TAudio2UniversalDevice(::|$)' |
  grep -v -x -E 'webrtc::Config::identifier<webrtc::(ExtendedFilter|DelayAgnostic)>\(\)::id_placeholder' || true)
if [ -n "$stray" ]; then
  echo "unexpected exports:"; echo "$stray"; exit 1
fi
for wanted in 'tamrel::TAudio2UniversalDevice::DEFAULT_SAMPLE_RATE' \
              'tamrel::TAudio2UniversalDevice::TAudio2UniversalDevice(unsigned int)' \
              'tamrel::TAudio2UniversalDevice::openStream' 'typeinfo for tamrel::TAudio2UniversalDevice' \
              'webrtc::Config::identifier<webrtc::ExtendedFilter>()::id_placeholder' \
              'webrtc::Config::identifier<webrtc::DelayAgnostic>()::id_placeholder'; do
  echo "$symbols" | grep -q -F "$wanted" || { echo "missing export: $wanted"; exit 1; }
done
echo "exports ok"
