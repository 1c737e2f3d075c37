#!/usr/bin/env bash
# The main job on the built-in default: build, then record the bundled sample as .mov and .mp4.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh build -DBOXWEAVE_TESTS=OFF
./build/boxweave demo build/demo
