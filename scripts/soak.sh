#!/usr/bin/env bash
# Soak on a real sound server, outside the test suite: test_realserver's open/close stress run for SECONDS (default
# 600) in a private virtual room of its own, its resident memory sampled every 10 s. Fails when the stress fails (an
# open fails, no stream runs, a thread hangs, a callback follows its close, a descriptor or a server stream stays
# open) or when memory grows by more than 4 MB per 1000 cycles after the first minute has warmed the libraries up
# (a leaked stream or canceller would come to far more).
#
#   bash scripts/soak.sh [SECONDS]        BUILD_DIR (default ./build-plain) is built first
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-plain}
seconds=${1:-600}

cmake -S "$root" -B "$build" > /dev/null
cmake --build "$build" -j2 --target test_realserver > /dev/null
log=$(mktemp)
trap 'rm -f "$log"' EXIT
TAUDIO2_STRESS_SECONDS=$seconds "$build/tests/realserver/test_realserver" \
  --gtest_filter='RealServerStress.ConcurrentOpensAndClosesNeverHangNorLeak' > "$log" 2>&1 &
pid=$! elapsed=0 first_kb="" first_s=0 kb=0
while sleep 10 && kb=$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status" 2>/dev/null) && [ -n "$kb" ]; do
  elapsed=$((elapsed + 10)) last_kb=$kb
  [ -n "$first_kb" ] || [ "$elapsed" -lt 60 ] || { first_kb=$kb; first_s=$elapsed; }
  echo "soak: ${elapsed} s, resident memory ${kb} kB"
done
status=0
wait "$pid" || status=$?
grep -E '^real server:|FAILED' "$log" || true
cycles=$(sed -n 's/.*opened and closed \([0-9]*\) streams.*/\1/p' "$log")
# The cycles of the measured stretch, at the run's own pace.
if [ "$status" -eq 0 ] && [ -n "$first_kb" ] && [ "$elapsed" -gt "$first_s" ] && [ "${cycles:-0}" -gt 0 ]; then
  measured=$(( cycles * (elapsed - first_s) / seconds ))
  grown=$(( (last_kb - first_kb) * 1000 / (measured > 0 ? measured : 1) ))
  echo "soak: ${grown} kB per 1000 cycles over the last $measured of $cycles cycles"
  [ "$grown" -le 4000 ] || status=1
fi
if [ "$status" -eq 0 ]; then echo "soak: passed"; else echo "soak: FAILED"; exit 1; fi
