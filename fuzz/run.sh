#!/usr/bin/env bash
# Builds the libFuzzer targets in build-fuzz/ with clang and runs each one for a bounded time
# on a scratch copy of its committed seed corpus (fuzz/corpus/<target>/). Any crash, leak,
# sanitizer report or failed check fails the script; libFuzzer leaves the reproducer as
# build-fuzz/artifacts/<target>/crash-* (replay: build-fuzz/fuzz/<target> <file>).
#
#   FUZZ_SECONDS   time per target (default 60)
#   FUZZ_TARGETS   targets to run (default: all)
#   FUZZ_JOBS      build parallelism (default 2)
#   CXX            the clang++ to use (default clang++)
set -euo pipefail
cd "$(dirname "$0")/.."

SECONDS_PER_TARGET="${FUZZ_SECONDS:-60}"
TARGETS="${FUZZ_TARGETS:-fuzz_framing fuzz_url fuzz_length_parser fuzz_tls}"
JOBS="${FUZZ_JOBS:-2}"
BUILD=build-fuzz

cmake -S . -B "$BUILD" -DCMAKE_CXX_COMPILER="${CXX:-clang++}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQUOLNET_BUILD_FUZZ=ON -DQUOLNET_BUILD_TESTS=OFF -DQUOLNET_BUILD_EXAMPLES=OFF \
  -DQUOLNET_BUILD_BENCH=OFF -DQUOLNET_BUILD_TOOLS=OFF -DQUOLNET_INSTALL=OFF >/dev/null
# shellcheck disable=SC2086
cmake --build "$BUILD" -j"$JOBS" --target $TARGETS

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:allocator_may_return_null=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
failed=""
for target in $TARGETS; do
  corpus="$BUILD/corpus/$target"
  artifacts="$BUILD/artifacts/$target"
  rm -rf "$corpus"
  mkdir -p "$corpus" "$artifacts"
  cp fuzz/corpus/"$target"/* "$corpus"/
  echo "== $target: ${SECONDS_PER_TARGET}s"
  if ! "$BUILD/fuzz/$target" -max_total_time="$SECONDS_PER_TARGET" -detect_leaks=1 -timeout=25 \
      -rss_limit_mb=2048 -max_len=8192 -print_final_stats=1 -artifact_prefix="$artifacts/" \
      "$corpus" 2>"$BUILD/$target.log"; then
    tail -n 60 "$BUILD/$target.log"
    failed="$failed $target"
    continue
  fi
  grep -E "^(stat::number_of_executed_units|stat::new_units_added|stat::peak_rss_mb)" "$BUILD/$target.log" || true
done
if [ -n "$failed" ]; then
  echo "fuzz: FAILED:$failed"
  exit 1
fi
echo "fuzz: every target ran ${SECONDS_PER_TARGET}s without a finding"
