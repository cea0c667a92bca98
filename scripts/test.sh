#!/usr/bin/env bash
# Builds the project twice (optimised, and with AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs the whole test suite on both builds.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/ensure-deps.sh
jobs=$(nproc 2>/dev/null || echo 2)
status=0
for type in RelWithDebInfo Sanitize; do
  dir=build/$(echo "$type" | tr 'A-Z' 'a-z')
  echo "== $type build in $dir"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" -DTARNIX_BUILD_BENCH=OFF >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "== $type tests"
  # ASan keeps its own SIGSEGV handler; the crash-log tests need theirs.
  ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:handle_abort=0:detect_leaks=1 \
  UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir "$dir" -j "$jobs" --output-on-failure || status=1
done
# Fuzz smoke run: a few seconds per target (FUZZ_SMOKE_SECONDS, 0 skips it),
# only where clang can build libFuzzer programs.
if [ "${FUZZ_SMOKE_SECONDS:-5}" != 0 ] && fuzz/run.sh --available; then
  echo "== fuzz smoke run"
  FUZZ_OUT=build/fuzz fuzz/run.sh "${FUZZ_SMOKE_SECONDS:-5}" || status=1
fi
exit $status
