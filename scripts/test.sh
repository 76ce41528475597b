#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite: in the
# normal build (build/, with a two-minute soak), with AddressSanitizer and
# UndefinedBehaviorSanitizer (build-asan/), with ThreadSanitizer
# (build-tsan/), the fuzzers for a bounded time each (build-fuzz/), and as the
# cross-built Windows DLL under Wine (build-windows/).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=$(nproc)

bash scripts/bootstrap.sh

run_suite() {
  local dir=$1; shift
  echo "== $dir: configure and build"
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "== $dir: tests"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
# Sanitizer settings are built into each program (cmake/sanitizer_defaults.cpp).
UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1} run_suite build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTONWERK_SANITIZE=ON -DTONWERK_BUILD_BENCH=OFF
run_suite build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTONWERK_SANITIZE_THREAD=ON -DTONWERK_BUILD_BENCH=OFF

# libFuzzer targets (clang, ASan+UBSan), 90 s each from the seed corpus.
bash scripts/fuzz.sh 90

# The Windows DLL, cross-built and tested under Wine.
bash scripts/build-windows.sh
