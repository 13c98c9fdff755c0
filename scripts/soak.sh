#!/usr/bin/env bash
# Soak on a real sound server, outside the test suite: test_realserver's Soak
# tests in a private virtual room of their own. CYCLES open/close cycles
# (default 1000) on one device and on a fresh device each time, printing
# resident memory and open descriptors every 100 cycles; then the server is
# killed under a running stream and started again. Fails when an open fails, a
# stream is never called back, memory or descriptors keep growing, a close
# hangs or a callback follows it, or no stream runs on the restarted server.
#
#   bash scripts/soak.sh [CYCLES]        BUILD_DIR (default ./build-plain) is built first
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build-plain}

cmake -S "$root" -B "$build" > /dev/null
cmake --build "$build" -j2 --target test_realserver > /dev/null
if TAUDIO2_SOAK_CYCLES=${1:-1000} "$build/tests/realserver/test_realserver" --gtest_filter='Soak.*'; then
  echo "soak: passed"
else
  echo "soak: FAILED"
  exit 1
fi
