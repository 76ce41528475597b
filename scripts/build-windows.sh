#!/usr/bin/env bash
# Cross-builds the Windows DLL with mingw-w64 into build-windows/ and runs its
# tests under Wine: the library's unit and interface tests, its export and
# import tables, and the example host without the runtime beside it.
# Installs what is missing first (Debian's mingw-w64 and Wine).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=$(nproc)

bash scripts/bootstrap.sh --windows

echo "== build-windows: configure and build"
cmake -S . -B build-windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake -DCMAKE_BUILD_TYPE=Release \
  -DTONWERK_BUILD_BENCH=OFF >/dev/null
cmake --build build-windows -j "$jobs"

echo "== build-windows: tests under Wine"
# The tests share one Wine server, which goes when they are done.
trap 'build-windows/wine-run --stop-server' EXIT
ctest --test-dir build-windows --output-on-failure -j "$jobs"
