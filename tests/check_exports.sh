#!/usr/bin/env bash
# The device library exports its class and nothing else (no registry, converter or template instances that
# clients could come to rely on), but for webrtc's option keys, which must be shared with webrtc.
set -euo pipefail
symbols=$(nm -DC --defined-only "${1:?usage: check_exports.sh LIBRARY}" | cut -d' ' -f3-)
class='tamrel::TAudio2UniversalDevice'
key='webrtc::Config::identifier<webrtc::(ExtendedFilter|DelayAgnostic)>\(\)::id_placeholder'
stray=$(grep -vxE "((typeinfo|typeinfo name|vtable) for )?$class(::.*)?|$key" <<< "$symbols" || true)
[ -z "$stray" ] || { printf 'unexpected exports:\n%s\n' "$stray"; exit 1; }
for wanted in DEFAULT_SAMPLE_RATE 'TAudio2UniversalDevice(unsigned int)' openStream; do
  grep -qF "$class::$wanted" <<< "$symbols" || { echo "missing export: $class::$wanted"; exit 1; }
done
[ "$(grep -cxE "typeinfo for $class|$key" <<< "$symbols")" = 3 ] || { echo "missing: typeinfo or a webrtc key"; exit 1; }
echo "exports ok"
