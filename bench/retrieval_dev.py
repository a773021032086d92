#!/usr/bin/env python3
"""Packs the localization development set with `kestrix context` and scores the packs, reusing
exported checkouts and their indexes between runs.

    bench/retrieval_dev.py --cache DIR [--mirror-root DIR] [--source S] [--repo R] [--ids A,B]
                           [--limit N] [--jobs J] [--kestrix PATH] [--results FILE] [--export-only]

The scorer's own run (bench/retrieval_dev.sh without --cache) exports every base commit afresh
and indexes it for each run; tuning the ranking needs the packing alone again. Here each
instance's checkout is exported once into CACHE/<id>/repo and indexed into CACHE/<id>/index.db;
later runs refresh that index (`kestrix index`, which rebuilds only what changed, including the
retriever's tables when their format moved on) and pack again. Scoring and the table are the
scorer's own functions (tools/evaluate.py), so the figures compare with its runs.
"""

from __future__ import annotations

import argparse
import concurrent.futures
import json
import os
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
DEV = os.environ.get("RETRIEVAL_DEV", "/work/shared/retrieval-dev")
sys.path.insert(0, os.path.join(DEV, "tools"))
import evaluate  # noqa: E402  (the scorer: export, scoring and table)


def prepare(inst, gitdir, cache, kestrix):
    """Exports the checkout (once) and brings its index up to date."""
    base = os.path.join(cache, inst["id"])
    repo_dir = os.path.join(base, "repo")
    done = os.path.join(base, "exported")
    if not os.path.exists(done):
        os.makedirs(repo_dir, exist_ok=True)
        evaluate.export_tree(gitdir, inst["base_commit"], repo_dir)
        with open(os.path.join(base, "task.txt"), "w", encoding="utf-8") as fh:
            fh.write(inst["task"])
        open(done, "w").close()
    if kestrix:
        subprocess.run([kestrix, "index", "--repo", repo_dir, "--db", os.path.join(base, "index.db")],
                       check=True, capture_output=True)
    return base, repo_dir


def pack(inst, base, repo_dir, kestrix, extra):
    t0 = time.monotonic()
    proc = subprocess.run([kestrix, "context", "--repo", repo_dir, "--db", os.path.join(base, "index.db"),
                           "--budget", "800", *extra, inst["task"]], capture_output=True)
    seconds = time.monotonic() - t0
    rec = {"id": inst["id"], "repo": inst["repo"], "source": inst["source"], "seconds": round(seconds, 3)}
    pack_json = {}
    if proc.returncode != 0:
        rec["error"] = f"exit {proc.returncode}: " + proc.stderr.decode("utf-8", "replace")[-500:]
    else:
        try:
            pack_json = json.loads(proc.stdout)
        except json.JSONDecodeError as e:
            rec["error"] = f"bad JSON: {e}"
    rec["scores"] = evaluate.score(inst, pack_json, repo_dir)
    rec["top_files"] = [evaluate.norm_path(f, repo_dir) for f in (pack_json.get("files") or [])[:5]]
    rec["top_symbols"] = [f"{r.get('file')}:{r.get('name')}" for r in (pack_json.get("symbols") or [])[:5]]
    rec["notes"] = pack_json.get("notes")
    return rec


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--cache", required=True)
    ap.add_argument("--mirror-root", action="append", default=None)
    ap.add_argument("--mirror", action="append", default=None)
    ap.add_argument("--dataset", default=os.path.join(DEV, "dataset.jsonl"))
    ap.add_argument("--source")
    ap.add_argument("--repo")
    ap.add_argument("--ids")
    ap.add_argument("--limit", type=int)
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--kestrix", default=os.path.join(HERE, "..", "build", "kestrix"))
    ap.add_argument("--results")
    ap.add_argument("--export-only", action="store_true")
    ap.add_argument("--no-retriever", action="store_true", help="keyword-only packs, for comparison")
    args = ap.parse_args()

    data = evaluate.load_jsonl(args.dataset)
    if args.source:
        data = [d for d in data if d["source"] == args.source]
    if args.repo:
        data = [d for d in data if d["repo"] == args.repo]
    if args.ids:
        keep = set(args.ids.split(","))
        data = [d for d in data if d["id"] in keep]
    if args.limit:
        data = data[:args.limit]
    mirrors = evaluate.find_mirrors(args, wanted={d["repo"] for d in data})
    kestrix = None if args.export_only else os.path.realpath(args.kestrix)
    extra = ["--no-retriever"] if args.no_retriever else []

    results, lock = [], threading.Lock()
    t0 = time.monotonic()

    def job(inst):
        base, repo_dir = prepare(inst, mirrors.get(inst["repo"]), args.cache, kestrix)
        if kestrix is None:
            return
        rec = pack(inst, base, repo_dir, kestrix, extra)
        with lock:
            results.append(rec)
            s = rec["scores"]
            print(f"[{len(results)}/{len(data)}] {rec['id']}: acc5={s['file_acc5']:.0f} "
                  f"hit5={s.get('sym_hit5', float('nan')):.0f} {rec['seconds']:.2f}s"
                  + (f" ERROR {rec['error'][:100]}" if rec.get("error") else ""), file=sys.stderr)

    with concurrent.futures.ThreadPoolExecutor(max_workers=max(1, args.jobs)) as ex:
        list(ex.map(job, data))
    if kestrix is None:
        print(f"exported {len(data)} checkouts in {time.monotonic() - t0:.0f}s")
        return
    order = {d["id"]: i for i, d in enumerate(data)}
    results.sort(key=lambda r: order[r["id"]])
    if args.results:
        with open(args.results, "w", encoding="utf-8") as fh:
            for r in results:
                fh.write(json.dumps(r) + "\n")
    print(evaluate.format_table(evaluate.summarize(results)))
    print(f"\n{len(results)} instances in {time.monotonic() - t0:.0f}s wall (jobs={args.jobs})")


if __name__ == "__main__":
    main()
