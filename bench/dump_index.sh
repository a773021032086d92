#!/usr/bin/env bash
# bench/dump_index.sh DB OUTDIR: dumps the content tables of an index in a fixed order (file
# mtimes left out) and prints an md5 per table, for checking that two indexes are identical.
set -euo pipefail
db=$1; out=$2; mkdir -p "$out"
q() { sqlite3 -batch "$db" "$2" > "$out/$1.tsv"; }
q files "select id,path,language,is_test,is_source,component_id,content_hash,size,module_name,has_syntax_errors from files order by id"
q components "select * from components order by id"
q symbols "select * from symbols order by id"
q refs "select * from refs order by id"
q ref_targets "select * from ref_targets order by symbol_id, ref_id"
q imports "select * from imports order by id"
q covering_tests "select * from covering_tests order by source_file_id, test_file_id"
q meta "select key,value from meta where key not like '%_at' order by key"
(cd "$out" && md5sum *.tsv)
