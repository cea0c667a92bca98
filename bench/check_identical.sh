#!/usr/bin/env bash
# Checks that tarnix-optimize still writes byte-identical merged files.
#
#   bench/check_identical.sh [--record] [CORPUS...]
#
# A corpus is "EVENTS:MAX_VALUES[:dup]": EVENTS synthetic events (seed 1)
# indexed with at most MAX_VALUES events per slice; with ":dup" the events
# are indexed twice, so that every value has a twin (same time and address)
# in another file. Each bucket is merged with "tarnix-optimize -m all" into
# one file, whose SHA-256 (the name holds a time-based id, so the content is
# compared, not the name) is compared with bench/identical.sha256. --record
# writes that file instead, from the build at hand.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build/pgo}
WORK=${WORK:-/tmp/tarnix-identical}
SUMS=$ROOT/bench/identical.sha256
record=0
if [ "${1:-}" = --record ]; then record=1; shift; fi
if [ $# -eq 0 ]; then set -- 20000:700 20000:700:dup 200000:7144 1000000:35700; fi

# The release build: profile-guided (scripts/build-release.sh), rebuilt when
# the source has changed since it was made.
mkdir -p "$WORK"
# tmpfs is not among the file systems whose lock files tarnix-optimize
# trusts unless told to; within one machine they are safe there.
if [ "$(stat -f -c %T "$WORK")" = tmpfs ]; then export OPTIMISTIC_ABOUT_FILE_LOCKING=1; fi
"$ROOT/scripts/build-release.sh" --if-stale "$BUILD" >"$WORK/build.log" 2>&1 ||
  { cat "$WORK/build.log" >&2; echo "check_identical: the release build failed" >&2; exit 1; }

[ $record -eq 1 ] && : >"$SUMS.new"
fail=0
for corpus in "$@"; do
  IFS=: read -r n maxv dup <<<"$corpus"
  events=$WORK/events-$n.tsv
  [ -s "$events" ] || "$BUILD/tarnix-index" --generate "$n" --seed 1 --emit-events >"$events"
  dir=$WORK/bucket
  rm -rf "$dir" && mkdir -p "$dir"
  # An event has at most 17 terms: only the value limit ever fills a slice.
  args=(-d "$dir" -q --max-values "$maxv" --max-terms $((maxv * 20)) --max-term-chars $((maxv * 20 * 64))
        --max-postings $((maxv * 20)))
  "$BUILD/tarnix-index" "${args[@]}" "$events"
  [ "${dup:-}" = dup ] && "$BUILD/tarnix-index" "${args[@]}" "$events"
  files=$(ls "$dir"/*.tsidx | wc -l)
  "$BUILD/tarnix-optimize" -m all -d "$dir"
  out=$(ls "$dir"/*.tsidx)
  [ "$(echo "$out" | wc -l)" -eq 1 ] || { echo "check: $corpus: more than one file after the merge" >&2; exit 1; }
  sum=$(sha256sum "$out" | cut -d' ' -f1)
  size=$(stat -c %s "$out")
  if [ $record -eq 1 ]; then
    echo "$corpus $files $size $sum" >>"$SUMS.new"
    echo "recorded $corpus: $files files -> $size bytes $sum"
  else
    want=$(awk -v c="$corpus" '$1 == c { print $4 }' "$SUMS")
    if [ -z "$want" ]; then
      echo "check: $corpus: no recorded sum" >&2
      fail=1
    elif [ "$want" = "$sum" ]; then
      echo "identical $corpus: $files files -> $size bytes $sum"
    else
      echo "DIFFERENT $corpus: $files files -> $size bytes $sum, recorded $want" >&2
      fail=1
    fi
  fi
  rm -rf "$dir"
done
[ $record -eq 1 ] && mv "$SUMS.new" "$SUMS"
exit $fail
