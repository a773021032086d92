#!/usr/bin/env bash
# Indexes a large source tree (made for the Linux kernel: apt-get install linux-source-6.1, then
# unpack /usr/src/linux-source-6.1.tar.xz) and prints, from one run:
#   - the full index's wall time and peak memory beside universal-ctags over the same tree;
#   - the index's size, per table and index (SQLite's dbstat);
#   - a no-op refresh, a refresh after touching 10 files and one after editing 100 files;
#   - pack latency with the retriever (median and 95th percentile over 200 tasks, warm).
#
#   bench/index_large.sh DIR [KESTRIX_BINARY]     (default binary: build/kestrix)
#
# The tree is left as it was found: the touched and edited files are copied aside first and put
# back (content and modification time) at the end. The index goes to a temporary directory
# (KESTRIX_BENCH_TMP, default /tmp), which needs room for about 1.5 times the tree. Not for CI:
# a kernel tree takes several minutes.
set -euo pipefail
cd "$(dirname "$0")/.."
[ $# -ge 1 ] || { echo "usage: bench/index_large.sh DIR [KESTRIX_BINARY]" >&2; exit 2; }
tree=$(realpath "$1")
kestrix=$(realpath "${2:-${KESTRIX:-build/kestrix}}")
context_bench=$(dirname "$kestrix")/bench/context_bench
[ -d "$tree" ] || { echo "index_large: $tree is not a directory" >&2; exit 2; }
[ -x "$kestrix" ] || { echo "index_large: no kestrix binary at $kestrix (build it first)" >&2; exit 2; }
[ -x "$context_bench" ] || { echo "index_large: no context_bench beside kestrix ($context_bench)" >&2; exit 2; }
for tool in ctags sqlite3 /usr/bin/time; do
  command -v "$tool" >/dev/null || { echo "index_large: $tool is missing" >&2; exit 2; }
done

work=$(mktemp -d "${KESTRIX_BENCH_TMP:-/tmp}/kestrix-large-XXXXXX")
db="$work/index.db"
saved="$work/saved"
mkdir -p "$saved"
restore() {
  # Put every changed file back, content and modification time, before the work files go.
  if [ -d "$saved" ]; then
    (cd "$saved" && find . -type f -print0 | while IFS= read -r -d '' f; do cp -p "$f" "$tree/$f"; done)
  fi
  rm -rf "$work"
}
trap restore EXIT

# Seconds of wall time and peak resident KB of a command; its output is kept in $work/out.txt.
measure() {
  /usr/bin/time -f "%e %M" -o "$work/time.txt" "$@" >"$work/out.txt" 2>"$work/err.txt" || {
    cat "$work/err.txt" >&2; exit 1; }
  read -r wall peak_kb <"$work/time.txt"
}
mb() { awk -v kb="$1" 'BEGIN {printf "%.0f MB", kb / 1024}'; }

# Debian's linux-source tarball ends its top-level .gitignore with "/*" and "!/debian/" (its
# packaging ignores the whole tree but debian/), which would leave nothing to index; for the run,
# those two lines go, so the tree is indexed as a kernel clone would be.
if [ -f "$tree/.gitignore" ] && grep -qx '/\*' "$tree/.gitignore"; then
  cp -p "$tree/.gitignore" "$saved/.gitignore"
  grep -vx -e '/\*' -e '!/debian/' "$saved/.gitignore" >"$tree/.gitignore"
  echo "note: the tree's .gitignore ignores everything at its root (\"/*\"); those lines are left out for the run"
fi
echo "tree: $tree ($(nproc) cores)"
measure ctags -R --output-format=json --fields=+neKS -f "$work/tags.json" "$tree"
ctags_wall=$wall ctags_peak=$peak_kb
ctags_tags=$(wc -l <"$work/tags.json")
rm -f "$work/tags.json"

measure "$kestrix" index --repo "$tree" --db "$db" --timings
full_wall=$wall full_peak=$peak_kb
full_summary=$(cat "$work/out.txt")
full_timings=$(cat "$work/err.txt")
size=$(stat -c %s "$db")

measure "$kestrix" index --repo "$tree" --db "$db" --timings
noop_wall=$wall noop_timings=$(cat "$work/err.txt")

# Source files spread over the tree, in a fixed order.
mapfile -t spread < <(cd "$tree" && find . -type f \( -name '*.c' -o -name '*.h' -o -name '*.py' -o -name '*.rs' \) -size +1k |
  sort | awk 'NR % 211 == 7' | head -110)
[ "${#spread[@]}" -ge 110 ] || { echo "index_large: the tree has too few source files" >&2; exit 2; }
for f in "${spread[@]}"; do mkdir -p "$saved/$(dirname "$f")"; cp -p "$tree/$f" "$saved/$f"; done

for f in "${spread[@]:0:10}"; do touch "$tree/$f"; done
measure "$kestrix" index --repo "$tree" --db "$db" --timings
touched_wall=$wall touched_summary=$(cat "$work/out.txt") touched_timings=$(cat "$work/err.txt")

# An edit that changes what a file defines: a new function whose name is the file's own.
for f in "${spread[@]:10:100}"; do
  name=$(basename "$f" | tr -c 'A-Za-z0-9\n' '_')
  case "$f" in
    *.py) printf '\ndef bench_edit_%s():\n    return 1\n' "$name" >>"$tree/$f" ;;
    *.rs) printf '\nfn bench_edit_%s() -> i32 { 1 }\n' "$name" >>"$tree/$f" ;;
    *) printf '\nstatic int bench_edit_%s(void) { return 1; }\n' "$name" >>"$tree/$f" ;;
  esac
done
measure "$kestrix" index --repo "$tree" --db "$db" --timings
edited_wall=$wall edited_summary=$(cat "$work/out.txt") edited_timings=$(cat "$work/err.txt")

"$context_bench" --stdlib "$tree" --db "$db" --tasks 200 --repeat 1 --retriever-only >"$work/packs.txt"

echo "ctags -R:          ${ctags_wall} s wall, peak $(mb "$ctags_peak"), $ctags_tags tags"
echo "full index:        ${full_wall} s wall, peak $(mb "$full_peak"); $(awk -v a="$full_wall" -v b="$ctags_wall" 'BEGIN {printf "%.2fx", a / b}') ctags' wall"
echo "                   $full_summary"
echo "                   $full_timings"
echo "index size:        $(awk -v s="$size" 'BEGIN {printf "%.0f MB", s / 1e6}')"
sqlite3 -readonly "$db" "SELECT printf('  %-34s %8.1f MB', name, sum(pgsize) / 1e6) FROM dbstat GROUP BY name ORDER BY sum(pgsize) DESC LIMIT 16"
echo "no-op refresh:     ${noop_wall} s   ($noop_timings)"
echo "10 files touched:  ${touched_wall} s   ($touched_timings)"
echo "                   $touched_summary"
echo "100 files edited:  ${edited_wall} s   ($edited_timings)"
echo "                   $edited_summary"
echo "packs:"
sed 's/^/  /' "$work/packs.txt"
