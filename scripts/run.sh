#!/usr/bin/env bash
# The main job on the built-in default: build, then run the command-line host on it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh build -DBOXWEAVE_TESTS=OFF
./build/boxweave inspect
