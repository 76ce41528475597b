#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, ASan and UBSan (build-fuzz/) and
# runs each for SECONDS (default 60) from the seed corpus in tests/fuzz/corpus/
# (copied, so the repository's seeds stay as they are). A crash, leak, time-out
# or broken invariant fails the run; the input that caused it is kept in
# build-fuzz/findings/ (replay: build-fuzz/fuzz/fuzz_<target> FILE).
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
seconds=${1:-60}
build=build-fuzz
targets=(process_schedule model_bytes buffer_aggregator)

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTONWERK_BUILD_FUZZERS=ON \
  -DTONWERK_BUILD_TESTS=OFF -DTONWERK_BUILD_TOOLS=OFF -DTONWERK_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

mkdir -p "$build/findings"
# The sanitizer builds unwind every allocation slowly, through the runtime's
# frames, to match their leak suppressions by function; the runtime allocates
# so much per model run that this made a stream five times slower. The
# fuzzers unwind fast and suppress the runtime's own leaks by library.
export ASAN_OPTIONS="fast_unwind_on_malloc=1${ASAN_OPTIONS:+:$ASAN_OPTIONS}"
export LSAN_OPTIONS="suppressions=$root/tests/fuzz/lsan.supp${LSAN_OPTIONS:+:$LSAN_OPTIONS}"
for target in "${targets[@]}"; do
  corpus="$build/corpus/$target"
  mkdir -p "$corpus"
  cp tests/fuzz/corpus/"$target"/* "$corpus"/
  log="$build/fuzz_$target.log"
  echo "== fuzz_$target: ${seconds} s"
  started=$SECONDS
  # Standard output is closed: it only carries the library's log lines.
  if ! "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=4096 -close_fd_mask=1 \
       -print_final_stats=1 -artifact_prefix="$build/findings/$target-" "$corpus" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz_$target failed; the input is in $build/findings/" >&2
    exit 1
  fi
  grep -E '^stat::(number_of_executed_units|peak_rss_mb)' "$log" | tr '\n' ' '
  echo "corpus: $(ls "$corpus" | wc -l) inputs, $((SECONDS - started)) s"
done
