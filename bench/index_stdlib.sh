#!/usr/bin/env bash
# Indexes this machine's Python standard library from scratch and prints files/s, MB/s,
# symbols, references, peak memory and wall time; runs universal-ctags over the same tree for
# comparison, and the full index without the retriever's tables (`--no-retriever`) beside it;
# then times a no-op re-index and a re-index after changing 10 files.
#
#   bench/index_stdlib.sh [KESTRIX_BINARY]      (default: build/kestrix)
#
# Works on a copy of the standard library (without site-packages and __pycache__) in a
# temporary directory; the index goes there too. Needs python3, ctags and /usr/bin/time.
set -euo pipefail
cd "$(dirname "$0")/.."
kestrix=$(realpath "${1:-${KESTRIX:-build/kestrix}}")
[ -x "$kestrix" ] || { echo "index_stdlib: no kestrix binary at $kestrix (build it first)" >&2; exit 2; }
for tool in python3 ctags /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "index_stdlib: $tool is missing" >&2; exit 2; }
done

stdlib=$(python3 -c 'import sysconfig; print(sysconfig.get_paths()["stdlib"])')
work=$(mktemp -d /tmp/kestrix-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
tree="$work/stdlib"
db="$work/index.db"
mkdir -p "$tree"
(cd "$stdlib" && tar --exclude=./site-packages --exclude=__pycache__ -cf - .) | (cd "$tree" && tar -xf -)

# Seconds of wall time and peak resident KB of a command, its output kept in $work/out.txt.
measure() {
  /usr/bin/time -f "%e %M" -o "$work/time.txt" "$@" >"$work/out.txt" 2>"$work/err.txt" || {
    cat "$work/err.txt" >&2; exit 1; }
  read -r wall peak_kb <"$work/time.txt"
}

# This machine's timings vary by several percent from run to run: ctags and the full index are
# each run $runs times, alternately, and compared by their medians.
runs=3
median() { printf '%s\n' "$@" | sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
ctags_walls=()
full_walls=()
plain_walls=()
full_runs_peak=()
full_runs_timings=()
for ((run = 1; run <= runs; run++)); do
  rm -f "$work/tags.json"
  measure ctags -R --output-format=json --fields=+neKS -f "$work/tags.json" "$tree"
  ctags_walls+=("$wall")
  rm -f "$db" "$db-wal" "$db-shm"
  measure "$kestrix" index --repo "$tree" --db "$db" --timings
  full_walls+=("$wall")
  full_runs_peak+=("$peak_kb")
  full_runs_timings+=("$(cat "$work/err.txt")")
  summary=$(cat "$work/out.txt")
  rm -f "$work/plain.db" "$work/plain.db-wal" "$work/plain.db-shm"
  measure "$kestrix" index --repo "$tree" --db "$work/plain.db" --no-retriever
  plain_walls+=("$wall")
done
plain_wall=$(median "${plain_walls[@]}")
full_size=$(stat -c %s "$db")
plain_size=$(stat -c %s "$work/plain.db")
ctags_wall=$(median "${ctags_walls[@]}")
ctags_tags=$(wc -l <"$work/tags.json")
full_wall=$(median "${full_walls[@]}")
# Peak memory and phase timings of the run whose time is the median.
for ((run = 0; run < runs; run++)); do
  if [ "${full_walls[$run]}" = "$full_wall" ]; then
    full_peak_kb=${full_runs_peak[$run]}
    full_timings=${full_runs_timings[$run]}
  fi
done
sql() { python3 -c 'import sqlite3, sys; print(sqlite3.connect(sys.argv[1]).execute(sys.argv[2]).fetchone()[0])' "$db" "$1"; }
files=$(sql "SELECT count(*) FROM files")
bytes=$(sql "SELECT sum(size) FROM files")
symbols=$(sql "SELECT count(*) FROM symbols")
references=$(sql "SELECT count(*) FROM refs")
resolved=$(sql "SELECT count(DISTINCT ref_id) FROM ref_targets")

measure "$kestrix" index --repo "$tree" --db "$db"
noop_wall=$wall
noop_summary=$(cat "$work/out.txt")

# Change the content of 10 Python files spread over the tree.
mapfile -t changed < <(cd "$tree" && find . -name '*.py' -size +2k | sort | awk 'NR % 97 == 1' | head -10)
for file in "${changed[@]}"; do printf '\n# changed by the benchmark\n' >>"$tree/$file"; done
measure "$kestrix" index --repo "$tree" --db "$db" --timings
touched_wall=$wall
touched_timings=$(cat "$work/err.txt")
touched_summary=$(cat "$work/out.txt")

python3 - "$full_wall" "$full_peak_kb" "$files" "$bytes" "$symbols" "$references" "$resolved" \
  "$ctags_wall" "$ctags_tags" "$noop_wall" "$touched_wall" "$(nproc)" "$plain_wall" "$full_size" "$plain_size" <<'EOF'
import sys
(full, peak_kb, files, size, symbols, refs, resolved, ctags, tags, noop, touched, cores, plain, full_size,
 plain_size) = sys.argv[1:]
plain, full_size, plain_size = float(plain), int(full_size), int(plain_size)
full, ctags, noop, touched = float(full), float(ctags), float(noop), float(touched)
files, size, symbols, refs, resolved = int(files), int(size), int(symbols), int(refs), int(resolved)
peak_mb = int(peak_kb) / 1024
ratio = full / ctags if ctags > 0 else float("inf")
print(f"full index:        {full:.2f} s wall (median) on {cores} cores, {files} files, {size / 1e6:.1f} MB")
print(f"throughput:        {files / full:.0f} files/s, {size / 1e6 / full:.1f} MB/s")
print(f"symbols:           {symbols}")
print(f"references:        {refs} ({resolved} resolved to a definition)")
print(f"peak memory:       {peak_mb:.0f} MB")
print(f"ctags:             {ctags:.2f} s wall, {int(tags)} tags; index/ctags = {ratio:.2f}x (medians of 3 runs each)")
print(f"retriever tables:  {full:.2f} s with, {plain:.2f} s without (--no-retriever): {full / plain:.2f}x; "
      f"index {full_size / 1e6:.1f} MB with, {plain_size / 1e6:.1f} MB without (medians of 3 runs each)")
print(f"no-op re-index:    {noop:.3f} s")
print(f"10 files changed:  {touched:.3f} s")
checks = [
    ("full index <= 2.5x ctags", ratio <= 2.5),
    (">= 500 files/s", files / full >= 500),
    ("no-op re-index < 0.3 s", noop < 0.3),
    ("peak memory < 500 MB", peak_mb < 500),
    ("retriever tables <= 1.3x", full <= 1.3 * plain),
]
print("targets:           " + ", ".join(f"{name}: {'met' if ok else 'MISSED'}" for name, ok in checks))
EOF
echo "summaries:"
echo "  full:    $summary"
echo "           $full_timings"
echo "  no-op:   $noop_summary"
echo "  changed: $touched_summary"
echo "           $touched_timings"
