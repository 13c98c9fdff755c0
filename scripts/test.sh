#!/usr/bin/env bash
# Installs what is needed, builds with warnings as errors and runs the whole
# test suite twice: plainly, then under AddressSanitizer and
# UndefinedBehaviorSanitizer.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh

jobs=$(nproc)
for variant in plain sanitize; do
  dir="$root/build-$variant"
  flags=(-DTAUDIO2_WERROR=ON)
  if [ "$variant" = sanitize ]; then
    flags+=(-DTAUDIO2_SANITIZE=ON)
    # Leaks are checked (the real-server test suppresses the sound server library's own).
    export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
    export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  fi
  echo "== $variant build"
  cmake -S "$root" -B "$dir" "${flags[@]}"
  cmake --build "$dir" -j"$jobs"
  echo "== $variant tests"
  ctest --test-dir "$dir" --output-on-failure --timeout 900
done
