#!/usr/bin/env bash
# The main job on the built-in default: build, then record the bundled sample as .mov and .mp4 and
# play both back through the plug-in's demuxer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBOXWEAVE_TESTS=OFF -DBOXWEAVE_TOOLS=ON \
  -DBOXWEAVE_SANITIZE=OFF -DBOXWEAVE_BENCH=OFF -DBOXWEAVE_FUZZ=OFF
./build/boxweave demo build/demo
