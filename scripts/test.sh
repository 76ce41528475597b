#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite twice: once
# in the normal build (build/) and once with AddressSanitizer and
# UndefinedBehaviorSanitizer (build-asan/).
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
# ONNX Runtime is loaded from a binary built without the sanitizers; its
# process-lifetime allocations are not ours to report.
ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} \
UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
  run_suite build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTONWERK_SANITIZE=ON -DTONWERK_BUILD_BENCH=OFF
