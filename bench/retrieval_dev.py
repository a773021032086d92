#!/usr/bin/env python3
"""Scores `kestrix context --budget 800` on the localization development set
(../shared/retrieval-dev, or $RETRIEVAL_DEV) and prints the scorer's table beside the BM25
baseline's, for the same instances.

    bench/retrieval_dev.sh --mirror-root DIR [--source S] [--repo R] [--ids A,B] [--limit N]
                           [--jobs J] [--kestrix PATH] [--results FILE] [--no-retriever]
                           [--cache DIR [--export-only]]

Without --cache the scorer (tools/evaluate.py) runs as it is: every base commit is exported
afresh, indexed by the pack command's first run, packed and scored. With --cache DIR, meant for
tuning, each instance's checkout is exported once into DIR/<id>/repo and indexed into
DIR/<id>/index.db; later runs refresh that index (`kestrix index`, which redoes only what
changed, the retriever's tables included when their format moved on) and pack again. Scoring
and tables are the scorer's own functions either way. The baseline's figures are its stored
per-instance results (results/bm25.results.jsonl), never rerun.
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
DEV = os.environ.get("RETRIEVAL_DEV", os.path.join(HERE, "..", "..", "shared", "retrieval-dev"))
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
    ap.add_argument("--cache")
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
    kestrix = None if args.export_only else os.path.realpath(args.kestrix)
    extra = ["--no-retriever"] if args.no_retriever else []
    if not args.cache:
        run_scorer(args, data, kestrix, extra)
        return
    mirrors = evaluate.find_mirrors(args, wanted={d["repo"] for d in data})

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
    print(f"{len(results)} instances in {time.monotonic() - t0:.0f}s wall (jobs={args.jobs})\n")
    report(results)


def run_scorer(args, data, kestrix, extra):
    """The scorer's own run: export, index, pack and score every instance."""
    import shlex
    import tempfile
    results_path = args.results or os.path.join(tempfile.mkdtemp(prefix="kx-dev-"), "results.jsonl")
    cmd = (f"{shlex.quote(kestrix)} context --repo {{repo_dir}} --db {{repo_dir}}/.kx.db --budget 800 "
           + " ".join(extra) + ' "$(cat {task_file})"')
    argv = [sys.executable, os.path.join(DEV, "tools", "evaluate.py"), "--cmd", cmd, "--jobs", str(args.jobs),
            "--results", results_path, "--ids", ",".join(d["id"] for d in data)]
    for root in args.mirror_root or []:
        argv += ["--mirror-root", root]
    for mirror in args.mirror or []:
        argv += ["--mirror", mirror]
    subprocess.run(argv, check=True)
    print()
    report(evaluate.load_jsonl(results_path))


def report(results):
    """Our table, the baseline's table over the same instances, and the two side by side."""
    ours = evaluate.summarize(results)
    ids = {r["id"] for r in results}
    baseline_results = [r for r in evaluate.load_jsonl(os.path.join(DEV, "results", "bm25.results.jsonl")) if r["id"] in ids]
    baseline = evaluate.summarize(baseline_results)
    print("kestrix context --budget 800:")
    print(evaluate.format_table(ours))
    print("\nBM25 baseline (stored results, same instances):")
    print(evaluate.format_table(baseline))
    print("\nside by side (kestrix / baseline):")
    print("| group | n | Acc@1 | Acc@5 | MRR | symHit@5 | symR@10 |")
    print("|---|---|---|---|---|---|---|")
    for key, row in ours.items():
        base = baseline.get(key, {})
        cells = []
        for metric in ("file_acc1", "file_acc5", "file_mrr", "sym_hit5", "sym_recall10"):
            a, b = row.get(metric), base.get(metric)
            cells.append("-" if a is None else f"{a:.3f} / {'-' if b is None else f'{b:.3f}'}")
        print(f"| {key} | {row['n']} | " + " | ".join(cells) + " |")


if __name__ == "__main__":
    main()
