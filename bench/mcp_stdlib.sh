#!/usr/bin/env bash
# Builds the tool and the MCP round-trip benchmark and runs it over this machine's Python
# standard library. Arguments go to mcp_stdio_bench: [--stdlib DIR] [--db PATH] [--calls N].
# BUILD_DIR picks the build directory (default: build).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)" --target kestrix mcp_stdio_bench
exec "$build/bench/mcp_stdio_bench" "$@"
