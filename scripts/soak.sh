#!/usr/bin/env bash
# Soak on a real sound server, outside the test suite: test_realserver's open/close stress run for SECONDS (default
# 600) in a private virtual room of its own. Fails when an open fails, no stream runs, a thread hangs, descriptors
# are left open or memory grows by more than 4 MB per 1000 cycles.
#
#   bash scripts/soak.sh [SECONDS]        BUILD_DIR (default ./build-plain) is built first
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-plain}

cmake -S "$root" -B "$build" > /dev/null
cmake --build "$build" -j2 --target test_realserver > /dev/null
if TAUDIO2_STRESS_SECONDS=${1:-600} "$build/tests/realserver/test_realserver" \
    --gtest_filter='RealServerStress.ConcurrentOpensAndClosesNeverHangNorLeak'; then
  echo "soak: passed"
else
  echo "soak: FAILED"
  exit 1
fi
