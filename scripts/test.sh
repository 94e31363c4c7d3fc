#!/usr/bin/env bash
# Builds and runs every test: the plain build, the whole suite under
# AddressSanitizer + UndefinedBehaviorSanitizer, and the threaded tests under
# ThreadSanitizer, and the libFuzzer targets for a short run each. The cloud
# tests start loopback S3 servers as a ctest fixture (tests/s3peers); the
# tests that drive the other S3 clients (label "peers") run in the plain
# build only.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc)

# run_suite DIR SANITIZER [CTEST ARGS...]
run_suite() {
  local dir="$1" sanitize="$2"
  shift 2
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPLINTH_SANITIZE="$sanitize" >/dev/null
  cmake --build "$dir"
  mkdir -p "$dir/tmp"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs" "$@"
}

echo "== plain build"
run_suite build/test ""
echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build/asan address -LE peers
echo "== libFuzzer targets (clang, ASan+UBSan), 20 s each"
cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DPLINTH_BUILD_FUZZ=ON -DPLINTH_BUILD_TESTS=OFF >/dev/null
cmake --build build/fuzz --target plinth_fuzz
ctest --test-dir build/fuzz --output-on-failure -j "$jobs" -R '^fuzz\.'
echo "== ThreadSanitizer (threaded tests)"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_suite build/tsan thread -R Threaded
