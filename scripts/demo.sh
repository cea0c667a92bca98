#!/usr/bin/env bash
# Builds tarnix-optimize and its tools, generates a bucket directory of small
# index files with tarnix-index, and runs tarnix-optimize -v on it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/ensure-deps.sh
dir=build/release
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNIX_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j "$(nproc 2>/dev/null || echo 2)"
bucket=${BUCKET:-$(mktemp -d /tmp/tarnix-bucket-XXXXXX)}
mkdir -p "$bucket"
# tmpfs is not among the file systems whose lock files tarnix-optimize
# trusts unless told to; within one machine they are safe there.
if [ "$(stat -f -c %T "$bucket")" = tmpfs ]; then export OPTIMISTIC_ABOUT_FILE_LOCKING=1; fi
events=${EVENTS:-200000}
# Slice limits of a small indexer: about 30 slices for 200000 events.
limits="--max-values 8192 --max-terms 131072 --max-term-chars 4194304 --max-postings 262144"
if [ ! -x "$dir/tarnix-index" ]; then
  echo "tarnix-index is not built yet; would run:"
  echo "  $dir/tarnix-index --generate $events --seed 1 -d $bucket $limits"
  echo "  $dir/tarnix-optimize -v -d $bucket"
  exit 0
fi
echo "== generating $events events into $bucket"
"$dir/tarnix-index" --generate "$events" --seed 1 -d "$bucket" $limits
echo "== before: $(ls "$bucket" | grep -c '\.tsidx$') index files, $(du -sh "$bucket" | cut -f1)"
"$dir/tarnix-optimize" -v -d "$bucket"
echo "== after: $(ls "$bucket" | grep -c '\.tsidx$') index files, $(du -sh "$bucket" | cut -f1)"
ls -l "$bucket"
if [ -x "$dir/tarnix-check" ]; then
  echo "== checking the merged bucket"
  "$dir/tarnix-check" "$bucket"
fi
