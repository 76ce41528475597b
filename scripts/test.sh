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
# Sanitizer settings are built into each program (cmake/sanitizer_defaults.cpp).
UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1} run_suite build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTONWERK_SANITIZE=ON -DTONWERK_BUILD_BENCH=OFF
