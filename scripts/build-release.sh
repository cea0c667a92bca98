#!/usr/bin/env bash
# Builds the program and its tools with profile-guided optimization (GCC):
#
#   scripts/build-release.sh [--if-stale] [BUILD_DIR]     (default: build/pgo)
#
# With --if-stale it does nothing when BUILD_DIR already holds binaries built
# from the source as it stands (a stamp of the committed build inputs and
# their uncommitted changes, written after each build; without git, when the
# binaries exist).
#
# 1. an instrumented build in BUILD_DIR;
# 2. a training run: a bucket of 32 slices from 300000 generated events
#    (seed 2, not the benchmark's seed), merged with -m all, and a second
#    bucket optimized by the usual selection, then checked;
# 3. the same build directory rebuilt with the profile (the profile's files
#    are named after the objects, so both builds must share the directory).
# Without GCC it builds the usual optimized way. The binaries behave exactly
# as those of any other build; only their speed differs.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
if_stale=0
if [ "${1:-}" = --if-stale ]; then if_stale=1; shift; fi
BUILD=${1:-$ROOT/build/pgo}
jobs=$(nproc 2>/dev/null || echo 2)
targets=(tarnix-optimize tarnix-index tarnix-dump tarnix-check)

source_stamp() {
  if git -C "$ROOT" rev-parse HEAD >/dev/null 2>&1; then
    # The committed build inputs by their tree hashes, so that a commit of
    # documents alone does not make the build stale.
    { git -C "$ROOT" rev-parse HEAD:CMakeLists.txt HEAD:src HEAD:tools HEAD:scripts/build-release.sh
      git -C "$ROOT" diff HEAD -- CMakeLists.txt src tools scripts/build-release.sh
      git -C "$ROOT" ls-files --others --exclude-standard -- src tools | sort |
        while read -r f; do sha256sum "$ROOT/$f"; done
    } | sha256sum | cut -d' ' -f1
  else
    echo no-git
  fi
}
stamp=$(source_stamp)
if [ $if_stale -eq 1 ] && [ -f "$BUILD/source.stamp" ] && [ "$(cat "$BUILD/source.stamp")" = "$stamp" ]; then
  ok=1
  for t in "${targets[@]}"; do [ -x "$BUILD/$t" ] || ok=0; done
  [ $ok -eq 1 ] && exit 0
fi
rm -f "$BUILD/source.stamp"

configure() {
  cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTARNIX_BUILD_TESTS=OFF -DTARNIX_BUILD_BENCH=OFF -DTARNIX_PGO="$1" >/dev/null
}

configure generate
if ! grep -q '^TARNIX_PGO_ACTIVE:INTERNAL=generate$' "$BUILD/CMakeCache.txt"; then
  echo "build-release: the compiler is not GCC; building without a profile" >&2
  configure ""
  ninja -C "$BUILD" -j "$jobs" "${targets[@]}"
  echo "$stamp" >"$BUILD/source.stamp"
  exit 0
fi

profile=$BUILD/pgo-profile
train=$(mktemp -d "${TMPDIR:-/tmp}/tarnix-train-XXXXXX")
trap 'rm -rf "$train"' EXIT
# tmpfs is not among the file systems whose lock files tarnix-optimize
# trusts unless told to; within one machine they are safe there.
if [ "$(stat -f -c %T "$train")" = tmpfs ]; then export OPTIMISTIC_ABOUT_FILE_LOCKING=1; fi

echo "== instrumented build in $BUILD"
rm -rf "$profile"
ninja -C "$BUILD" -j "$jobs" "${targets[@]}"

echo "== training run"
# About 32 slices of the 300000 events (an event holds at most 17 terms).
per=11000
mkdir -p "$train/all"
"$BUILD/tarnix-index" --generate 300000 --seed 2 -d "$train/all" -q --max-values $per \
  --max-terms $((per * 20)) --max-term-chars $((per * 20 * 64)) --max-postings $((per * 20))
ls "$train/all"/*.tsidx | wc -l
cp -r "$train/all" "$train/sel"
"$BUILD/tarnix-optimize" -m all -d "$train/all" >/dev/null
"$BUILD/tarnix-optimize" -d "$train/sel" >/dev/null
"$BUILD/tarnix-check" "$train/all" >/dev/null
"$BUILD/tarnix-check" "$train/sel" >/dev/null
[ -d "$profile" ] || { echo "build-release: the training run wrote no profile" >&2; exit 1; }

echo "== optimized build with the profile"
configure use
ninja -C "$BUILD" -j "$jobs" "${targets[@]}"
echo "$stamp" >"$BUILD/source.stamp"
