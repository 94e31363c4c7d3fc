#!/usr/bin/env bash
# Builds and runs every test: the plain build, the whole suite under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the threaded tests under
# ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc)

run_suite() {
  local dir="$1" sanitize="$2" filter="$3"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLINTH_SANITIZE="$sanitize" >/dev/null
  cmake --build "$dir"
  mkdir -p "$dir/tmp"
  if [ -n "$filter" ]; then
    ctest --test-dir "$dir" --output-on-failure -j "$jobs" -R "$filter"
  else
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
  fi
}

echo "== plain build"
run_suite build/test "" ""
echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build/asan address ""
echo "== ThreadSanitizer (threaded tests)"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_suite build/tsan thread "Threaded"
