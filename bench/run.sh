#!/usr/bin/env bash
# Merge benchmark of tarnix-optimize against the copy floor and a peer.
#
#   bench/run.sh [EVENTS...]          (default: 200000 1000000)
#
# For each corpus size N: generates N synthetic events (seed 1), indexes them
# into a bucket of exactly 32 index files, and then times, alternating the
# commands, one warm-up and RUNS (default 5) runs of each on a fresh copy of
# the bucket with its inputs warm in the page cache:
#   optimize  tarnix-optimize -m all -d COPY
#   floor     cat of the same 32 files into one file in the same directory
#   peer      xapian-compact of 32 Xapian databases holding the same events
#             (one document per event, every term a boolean term)
# and prints, and appends to bench/RESULTS.md, one table row per command.
#
# Environment: BUILD (build directory; default build/pgo, where the release
# build of scripts/build-release.sh is made, again whenever the source has
# changed), WORK (scratch directory; default
# /tmp/tarnix-bench), RUNS, LABEL (a note for the results heading), TOKENS
# (text tokens of an event, MIN-MAX as tarnix-index --tokens takes them;
# default 4-14, about 12 terms an event; 14-36 gives about 26).
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build/pgo}
WORK=${WORK:-/tmp/tarnix-bench}
RUNS=${RUNS:-5}
LABEL=${LABEL:-}
TOKENS=${TOKENS:-4-14}
case $TOKENS in
  *[!0-9-]* | -* | *- | *-*-* | '') echo "bench: TOKENS takes MIN-MAX, not \"$TOKENS\"" >&2; exit 2 ;;
esac
# Terms an event can hold: the three field terms and the most tokens.
EVENT_TERMS=$((3 + ${TOKENS#*-}))
RESULTS=$ROOT/bench/RESULTS.md
if [ $# -eq 0 ]; then set -- 200000 1000000; fi

# The release build: profile-guided (scripts/build-release.sh), rebuilt when
# the source has changed since it was made.
mkdir -p "$WORK"
# tmpfs is not among the file systems whose lock files tarnix-optimize
# trusts unless told to; within one machine they are safe there.
if [ "$(stat -f -c %T "$WORK")" = tmpfs ]; then export OPTIMISTIC_ABOUT_FILE_LOCKING=1; fi
"$ROOT/scripts/build-release.sh" --if-stale "$BUILD" >"$WORK/build.log" 2>&1 ||
  { cat "$WORK/build.log" >&2; echo "bench: the release build failed" >&2; exit 1; }
IDX=$BUILD/tarnix-index
OPT=$BUILD/tarnix-optimize
DUMP=$BUILD/tarnix-dump
[ -x /usr/bin/time ] || { echo "bench: /usr/bin/time is needed (apt-get install time)" >&2; exit 1; }

# The peer: Debian's xapian-tools and python3-xapian.
PEER=1
PEER_NOTE=""
PY=/usr/bin/python3
if ! command -v xapian-compact >/dev/null || ! $PY -c 'import xapian' 2>/dev/null; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y xapian-tools python3-xapian >/dev/null 2>&1 || true
  fi
  if ! command -v xapian-compact >/dev/null || ! $PY -c 'import xapian' 2>/dev/null; then
    PEER=0
    PEER_NOTE="peer skipped: xapian-compact or python3-xapian missing (install xapian-tools python3-xapian as root)"
    echo "bench: $PEER_NOTE" >&2
  fi
fi

mkdir -p "$WORK"
now_ns() { date +%s%N; }
# header field of an index file, from tarnix-dump --header
field() { "$DUMP" "$1" --header | awk -v f="$2" '$1 == f { print $2; exit }'; }
section_size() { "$DUMP" "$1" --header | awk -v f="$2" '$1 == f && NF == 3 { print $3; exit }'; }

# Indexes events file $1 into directory $2 with at most $3 events per slice;
# prints the number of files.
index_into() {
  rm -rf "$2" && mkdir -p "$2"
  # Room for every event's terms: only the value limit ever fills a slice.
  local per=$(($3 * (EVENT_TERMS + 3)))
  "$IDX" -d "$2" -q --max-values "$3" --max-terms $per --max-term-chars $((per * 64)) \
    --max-postings $per "$1"
  find "$2" -maxdepth 1 -name '*.tsidx' | wc -l
}

# Builds a bucket of exactly 32 files: a slice is flushed once it is more
# than 7/8 full, so the limit is searched for, starting from that estimate.
make_bucket() {
  local events=$1 n=$2 dir=$3
  local per=$(( (n + 31) / 32 ))
  local m=$(( per * 8 / 7 + 2 )) lo=1 hi=0 count tries=0
  while :; do
    count=$(index_into "$events" "$dir" "$m")
    [ "$count" -eq 32 ] && return 0
    tries=$((tries + 1))
    [ $tries -gt 40 ] && { echo "bench: no slice limit gives 32 files for $n events" >&2; exit 1; }
    if [ "$count" -gt 32 ]; then lo=$m; else hi=$m; fi
    if [ "$hi" -eq 0 ]; then m=$((m + m / 64 + 1)); else m=$(( (lo + hi) / 2 )); fi
    [ "$m" -le "$lo" ] && m=$((lo + 1))
  done
}

# Builds 32 Xapian databases from the events, split like the bucket's files
# (their value counts in time order).
make_peer() {
  local events=$1 bucket=$2 dir=$3 sizes=""
  for f in $(ls "$bucket"/*.tsidx | sort -t- -k2,2n); do sizes="$sizes $(field "$f" num_values)"; done
  rm -rf "$dir" && mkdir -p "$dir"
  $PY - "$events" "$dir" $sizes <<'EOF'
import sys, xapian
events, out, sizes = sys.argv[1], sys.argv[2], [int(s) for s in sys.argv[3:]]
with open(events) as f:
    for k, n in enumerate(sizes):
        db = xapian.WritableDatabase("%s/db%02d" % (out, k), xapian.DB_CREATE_OR_OVERWRITE)
        for _ in range(n):
            line = f.readline().rstrip("\n")
            doc = xapian.Document()
            for t in line.split("\t")[6].split(" "):
                doc.add_boolean_term(t)
            db.add_document(doc)
        db.commit()
        db.close()
EOF
}

# One timed run: fresh copy (not timed), then the command under /usr/bin/time.
# Prints "seconds peak_kib output_bytes".
timed() {
  local what=$1 src=$2 copy=$WORK/copy
  rm -rf "$copy"
  cp -r "$src" "$copy"
  find "$copy" -type f -exec cat {} + >/dev/null
  local t0 t1 out
  case $what in
    optimize)
      t0=$(now_ns)
      /usr/bin/time -f '%M %U %S' -o "$WORK/time.out" "$OPT" -m all -d "$copy"
      t1=$(now_ns)
      [ "$(ls "$copy"/*.tsidx | wc -l)" -eq 1 ] || { echo "bench: optimize left more than one file" >&2; exit 1; }
      out=$(stat -c %s "$copy"/*.tsidx)
      ;;
    floor)
      t0=$(now_ns)
      /usr/bin/time -f '%M %U %S' -o "$WORK/time.out" sh -c 'cat "$1"/*.tsidx > "$1"/all.cat' sh "$copy"
      t1=$(now_ns)
      out=$(stat -c %s "$copy"/all.cat)
      ;;
    peer)
      t0=$(now_ns)
      /usr/bin/time -f '%M %U %S' -o "$WORK/time.out" xapian-compact -q "$copy"/db?? "$copy"/out >/dev/null
      t1=$(now_ns)
      out=$(du -sb "$copy"/out | cut -f1)
      ;;
  esac
  # wall ns, peak KiB, user s, system s, output bytes
  echo "$(( t1 - t0 )) $(tail -1 "$WORK/time.out") $out"
}

{
  echo
  echo "## $(date -u '+%Y-%m-%d %H:%M UTC') $(git -C "$ROOT" rev-parse --short HEAD 2>/dev/null || true)${LABEL:+ — $LABEL}"
  echo
  echo "Machine: $(nproc) CPUs, $(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)," \
       "$(awk '/MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo) memory; $RUNS timed runs after one warm-up."
  [ -n "$PEER_NOTE" ] && echo "$PEER_NOTE"
  echo
} >"$WORK/results.md"

for n in "$@"; do
  corpus=$WORK/n$n
  [ "$TOKENS" = 4-14 ] || corpus=$WORK/n$n-t$TOKENS
  mkdir -p "$corpus"
  events=$corpus/events.tsv
  [ -s "$events" ] || "$IDX" --generate "$n" --seed 1 --tokens "$TOKENS" --emit-events >"$events"
  if [ ! -f "$corpus/bucket.ok" ]; then
    make_bucket "$events" "$n" "$corpus/bucket"
    touch "$corpus/bucket.ok"
    rm -f "$corpus/peer.ok"
  fi
  if [ $PEER -eq 1 ] && [ ! -f "$corpus/peer.ok" ]; then
    make_peer "$events" "$corpus/bucket" "$corpus/peer"
    touch "$corpus/peer.ok"
  fi
  files=$(ls "$corpus"/bucket/*.tsidx | wc -l)
  [ "$files" -eq 32 ] || { echo "bench: bucket has $files files, not 32" >&2; exit 1; }

  # Counts of the sources and the memory bound's parts.
  values=0 postings=0 src_terms=0 in_bytes=0
  for f in "$corpus"/bucket/*.tsidx; do
    values=$((values + $(field "$f" num_values)))
    postings=$((postings + $(field "$f" num_postings)))
    src_terms=$((src_terms + $(field "$f" num_terms)))
    in_bytes=$((in_bytes + $(stat -c %s "$f")))
  done
  # One merge to learn the merged lexicon's size and the distinct terms.
  rm -rf "$WORK/probe" && cp -r "$corpus/bucket" "$WORK/probe"
  "$OPT" -m all -d "$WORK/probe"
  merged=$(ls "$WORK"/probe/*.tsidx)
  terms=$(field "$merged" num_terms)
  merged_postings=$(field "$merged" num_postings)
  lex=$(section_size "$merged" lexicon)
  bound_kib=$(( (4 * values + 8 * src_terms + lex + 64 * 1048576) / 1024 ))
  rm -rf "$WORK/probe"

  cmds="optimize floor"
  [ $PEER -eq 1 ] && cmds="$cmds peer"
  : >"$corpus/times"
  for rep in $(seq 0 "$RUNS"); do
    for c in $cmds; do
      src=$corpus/bucket
      [ "$c" = peer ] && src=$corpus/peer
      r=$(timed "$c" "$src")
      [ "$rep" -gt 0 ] && echo "$c $r" >>"$corpus/times"
      echo "bench: n=$n run $rep $c $r" >&2
    done
  done
  python3 - "$corpus/times" "$n" "$postings" "$merged_postings" "$terms" "$in_bytes" "$bound_kib" \
    "$src_terms" "$lex" "$TOKENS" >>"$WORK/results.md" <<'EOF'
import sys, statistics
times, n, postings, merged_postings, terms, in_bytes, bound_kib, src_terms, lex, tokens = sys.argv[1:]
rows = {}
for line in open(times):
    c, ns, kib, user, system, out = line.split()
    rows.setdefault(c, []).append((int(ns) / 1e9, int(kib), int(out), float(user) + float(system)))
med = {c: statistics.median(s for s, _, _, _ in r) for c, r in rows.items()}
cpu = {c: statistics.median(u for _, _, _, u in r) for c, r in rows.items()}
print("Corpus: %s events%s, %s postings in 32 files (%s after the merge), %s distinct terms (%s source terms), "
      "%s input bytes; merged lexicon %s bytes; memory bound %s KiB."
      % (n, "" if tokens == "4-14" else " of %s text tokens" % tokens, postings, merged_postings, terms,
         src_terms, in_bytes, lex, bound_kib))
print()
print("| command | output bytes | median s | min s | max s | median CPU s | postings/s | peak RSS KiB | RSS within bound |")
print("|---|---:|---:|---:|---:|---:|---:|---:|---|")
for c in ("optimize", "floor", "peer"):
    if c not in rows:
        continue
    r = rows[c]
    secs = [s for s, _, _, _ in r]
    rss = max(k for _, k, _, _ in r)
    print("| %s | %d | %.3f | %.3f | %.3f | %.3f | %.1f M | %d | %s |"
          % (c, r[-1][2], med[c], min(secs), max(secs), cpu[c], int(postings) / med[c] / 1e6, rss,
             "yes" if rss <= int(bound_kib) else "no"))
print()
line = "Ratios (medians): optimize/floor %.2f" % (med["optimize"] / med["floor"])
if "peer" in med:
    line += "; peer/optimize %.2f (optimize merges %.1f× the peer's postings per second)" % (
        med["peer"] / med["optimize"], med["peer"] / med["optimize"])
# /usr/bin/time counts CPU in hundredths: a floor below that has no ratio.
if cpu["floor"] >= 0.01:
    line += "; CPU (user + system) optimize/floor %.2f" % (cpu["optimize"] / cpu["floor"])
else:
    line += "; CPU (user + system) optimize %.2f s, floor under 0.01 s" % cpu["optimize"]
if "peer" in cpu:
    line += ", peer/optimize %.2f" % (cpu["peer"] / cpu["optimize"])
print(line + ".")
print()
EOF
done

cat "$WORK/results.md"
cat "$WORK/results.md" >>"$RESULTS"
