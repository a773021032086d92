#!/usr/bin/env bash
# Builds the backends benchmark and runs it over this machine's Python standard library: the
# index in a SQLite file and on PostgreSQL (a throwaway server unless --url is given), index
# and publish times, pack latency, byte-identical packs and packs per second with concurrent
# readers. Arguments go to backends_bench: [--stdlib DIR] [--tasks N] [--readers R]
# [--seconds S] [--url URL]. BUILD_DIR picks the build directory (default: build).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)" --target backends_bench
exec "$build/bench/backends_bench" "$@"
