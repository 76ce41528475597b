#!/usr/bin/env bash
# Separates an audio file into stems with the default model, building what
# is missing first.
#
#   scripts/separate.sh [INPUT] [OUTDIR]
#
# Without INPUT it synthesises the demo song (build/demo/demo.wav, with its
# true parts in build/demo/stems/) and also prints each stem's SDR against
# those parts. OUTDIR defaults to out/; stems from an earlier run there are
# replaced. The build folder is build/ unless
# TONWERK_BUILD_DIR names another. Extra tonwerk-separate options can be
# passed in TONWERK_SEPARATE_ARGS, e.g. TONWERK_SEPARATE_ARGS="--format pcm16".
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${TONWERK_BUILD_DIR:-$root/build}
input=${1:-}
outdir=${2:-out}

bash "$root/scripts/bootstrap.sh"
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build"
fi
targets=(tonwerk-separate tonwerk_baseline_model)
[ -z "$input" ] && targets+=(tonwerk_demo)
cmake --build "$build" -j2 --target "${targets[@]}"

args=(--overwrite)
if [ -z "$input" ]; then
  input="$build/demo/demo.wav"
  args+=(--reference-dir "$build/demo/stems")
fi
# Word splitting of the extra options is wanted here.
# shellcheck disable=SC2206
args+=(${TONWERK_SEPARATE_ARGS:-})

exec "$build/tonwerk-separate" "$input" -o "$outdir" "${args[@]}"
