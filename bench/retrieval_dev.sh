#!/usr/bin/env bash
# Scores `kestrix context --budget 800` on the localization development set and prints the
# scorer's table beside the BM25 baseline's. Options: see bench/retrieval_dev.py, e.g.
#
#   bench/retrieval_dev.sh --mirror-root /work/.mirror [--source commit] [--repo pallets/click]
#   bench/retrieval_dev.sh --mirror-root /work/.mirror --cache /tmp/kx-dev   (reuses checkouts)
#
# KESTRIX picks the binary (default: build/kestrix); RETRIEVAL_DEV the set (default:
# ../shared/retrieval-dev beside this checkout).
set -euo pipefail
cd "$(dirname "$0")/.."
export RETRIEVAL_DEV=${RETRIEVAL_DEV:-$(realpath ../shared/retrieval-dev)}
exec python3 bench/retrieval_dev.py --kestrix "${KESTRIX:-build/kestrix}" "$@"
