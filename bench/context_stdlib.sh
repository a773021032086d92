#!/usr/bin/env bash
# Builds the context benchmark and runs it over this machine's Python standard library.
# Arguments go to context_bench: [--stdlib DIR] [--db PATH] [--tasks N] [--repeat R] [--profile].
# BUILD_DIR picks the build directory (default: build).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)" --target context_bench
exec "$build/bench/context_bench" "$@"
