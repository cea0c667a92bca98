#!/usr/bin/env bash
# Builds the libFuzzer programs with clang (AddressSanitizer,
# UndefinedBehaviorSanitizer, coverage) apart from the CMake build, writes
# the seed corpora and runs every target (or the ones named) for SECONDS
# each, one after the other.
#
#   fuzz/run.sh [SECONDS] [TARGET...]     default 60 seconds, all targets
#   fuzz/run.sh --build-only
#   fuzz/run.sh --available               exit 0 when clang can build libFuzzer programs
#
# Targets: index_file lexicon merge params cmdline.
# Environment: FUZZ_OUT (build and corpus directory, default build-fuzz-clang),
# CXX (default clang++), FUZZ_JOBS (compile jobs, default 2).
# Crashing inputs land in $FUZZ_OUT/crashes/<target>/; copy each one into
# tests/fuzz/corpus/<target>/ so that the regression test replays it.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
out=${FUZZ_OUT:-$root/build-fuzz-clang}
cxx=${CXX:-clang++}
jobs=${FUZZ_JOBS:-2}
all_targets="index_file lexicon merge params cmdline"

build_only=0
check_only=0
seconds=60
if [[ "${1:-}" == "--build-only" ]]; then build_only=1; shift; fi
if [[ "${1:-}" == "--available" ]]; then check_only=1; shift; fi
if [[ "${1:-}" =~ ^[0-9]+$ ]]; then seconds=$1; shift; fi
targets=${*:-$all_targets}

if ! command -v "$cxx" >/dev/null 2>&1; then
  ((check_only)) || echo "fuzz: $cxx not found" >&2
  exit 2
fi
probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' >"$probe/p.cc"
if ! "$cxx" -fsanitize=fuzzer "$probe/p.cc" -o "$probe/p" 2>/dev/null; then
  ((check_only)) || echo "fuzz: $cxx cannot build libFuzzer programs" >&2
  exit 2
fi
((check_only)) && exit 0

flags=(-std=c++20 -g -O1 -fno-omit-frame-pointer -fsanitize=fuzzer-no-link,address,undefined
       -fno-sanitize-recover=all -Isrc -Itests -Wall -Wextra)
mkdir -p "$out/obj"

# The library, the command line and the target functions; an object is
# rebuilt when its source or any header is newer.
sources=(src/searchthing/*.cc src/optimize/optimize_main.cc tests/testutil/fuzz_targets.cc)
newest_header=$(ls -t src/*/*.h tests/testutil/fuzz_targets.h | head -1)
objs=()
todo=()
for s in "${sources[@]}"; do
  o=$out/obj/$(echo "$s" | tr '/' '_').o
  objs+=("$o")
  if [[ ! -f "$o" || "$s" -nt "$o" || "$newest_header" -nt "$o" ]]; then todo+=("$s"); fi
done
if ((${#todo[@]})); then
  echo "fuzz: compiling ${#todo[@]} sources"
  printf '%s\n' "${todo[@]}" | xargs -P "$jobs" -I{} sh -c \
    'o="$0/obj/$(echo "$1" | tr / _).o"; '"$cxx"' '"${flags[*]}"' -c "$1" -o "$o"' "$out" {}
fi
for t in $all_targets; do
  bin=$out/fuzz_$t
  if [[ ! -x "$bin" || fuzz/fuzz_entry.cc -nt "$bin" || -n "$(find "$out/obj" -newer "$bin" -name '*.o' | head -1)" ]]; then
    "$cxx" "${flags[@]/fuzzer-no-link/fuzzer}" -DFUZZ_TARGET="fuzz_$t" fuzz/fuzz_entry.cc "${objs[@]}" -o "$bin"
  fi
done
echo "fuzz: programs in $out"
((build_only)) && exit 0

# Seeds: generated index files, a merged file, lexicon sections cut out of
# them, parameter lines and command lines; plus every input already kept
# by the regression test.
if [[ ! -d "$out/seeds" ]]; then
  FUZZ_MAKE_SEEDS="$out/seeds" "$out/fuzz_index_file"
fi

status=0
for t in $targets; do
  corpus=$out/corpus/$t
  crashes=$out/crashes/$t
  mkdir -p "$corpus" "$crashes"
  dirs=("$corpus" "$out/seeds/$t")
  [[ -d tests/fuzz/corpus/$t ]] && dirs+=("tests/fuzz/corpus/$t")
  echo "== fuzz $t for ${seconds}s"
  # Inputs up to 64 KiB; a run that needs more than 512 MB at once, or
  # more than 10 s for one input, counts as a failure.
  if ! ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1 \
      "$out/fuzz_$t" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=2048 -malloc_limit_mb=512 \
      -timeout=10 -print_final_stats=1 -artifact_prefix="$crashes/" \
      "${dirs[@]}" 2>&1 | tee "$out/$t.log" | grep -E '^(#[0-9]+.*(DONE|pulse)|==|SUMMARY|stat::|artifact_prefix|Test unit written)' ; then
    :
  fi
  if grep -qE 'ERROR: (libFuzzer|AddressSanitizer|UndefinedBehaviorSanitizer)|runtime error|fuzz target .*:|SUMMARY' "$out/$t.log"; then
    echo "fuzz: $t FAILED, see $out/$t.log and $crashes/"
    status=1
  fi
done
exit $status
