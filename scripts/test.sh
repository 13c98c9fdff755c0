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
  ctest --test-dir "$dir" --output-on-failure --timeout 900 --output-log "$dir/ctest.log"
  echo "== $variant measurements"
  grep -E '^(echo delay|real server:|fuzz:)' "$dir/Testing/Temporary/LastTest.log" || true
done

# One closing line for both runs.
passed=0; failed=0
for variant in plain sanitize; do
  line=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$root/build-$variant/ctest.log" | tail -n 1)
  total=$(echo "$line" | sed -E 's/.*out of ([0-9]+).*/\1/')
  bad=$(echo "$line" | sed -E 's/.*, ([0-9]+) tests failed.*/\1/')
  passed=$((passed + total - bad)); failed=$((failed + bad))
done
echo "tests: $passed passed, $failed failed"
