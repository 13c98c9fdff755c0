#!/usr/bin/env bash
# Installs what is needed, builds with warnings as errors and runs the whole
# test suite twice: plainly, then under AddressSanitizer and
# UndefinedBehaviorSanitizer; then the concurrency tests under ThreadSanitizer.
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
  # What a client gets from an install: a prefix and the .debs, two out-of-tree clients.
  if [ "$variant" = plain ]; then
    echo "== plain install, clients and Debian packages"
    start=$SECONDS
    bash "$root/tests/consumers/check_install.sh" "$dir"
    echo "install check: $((SECONDS - start)) s"
    # Warnings fail too: one accepted is overridden in debian/ with its reason.
    if command -v lintian > /dev/null; then
      echo "== lintian"
      lintian --fail-on error,warning "$dir"/debian-packages/*.changes
    fi
  fi
done

# ThreadSanitizer: the fake-card device tests (lock rules, stress) and the
# real server's concurrency tests. Suppressions cover the sound server's
# libraries only; a report in the library fails the run.
(
  dir="$root/build-tsan"
  unset ASAN_OPTIONS UBSAN_OPTIONS
  export TSAN_OPTIONS="suppressions=$root/tests/tsan.supp halt_on_error=1 second_deadlock_stack=1"
  echo "== tsan build"
  cmake -S "$root" -B "$dir" -DTAUDIO2_WERROR=ON -DTAUDIO2_TSAN=ON
  cmake --build "$dir" -j"$jobs" --target test_device test_realserver
  echo "== tsan tests"
  ctest --test-dir "$dir" --output-on-failure --timeout 600 -R '^(test_device|test_realserver_stress)$' \
    --output-log "$dir/ctest.log"
  grep -E '^(stress:|real server:)' "$dir/Testing/Temporary/LastTest.log" || true
)

# The cost of the pipeline, briefly (a few seconds; the README has a longer run).
echo "== pipeline cost"
"$root/build-plain/benchmarks/bench_pipeline" --rounds 3 --seconds 10 || echo "(the benchmark failed; it is not a test)"

# One closing line for all runs.
passed=0; failed=0
for variant in plain sanitize tsan; do
  line=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$root/build-$variant/ctest.log" | tail -n 1)
  total=$(echo "$line" | sed -E 's/.*out of ([0-9]+).*/\1/')
  bad=$(echo "$line" | sed -E 's/.*, ([0-9]+) tests failed.*/\1/')
  passed=$((passed + total - bad)); failed=$((failed + bad))
done
echo "tests: $passed passed, $failed failed"
