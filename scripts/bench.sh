#!/usr/bin/env bash
# Builds the benchmark in build-bench (Release, no sanitizer) and runs it; arguments go to record_bench
# (see 'build-bench/record_bench --help', e.g. --long-minutes 2 for a quick trial). The first run makes
# the one-hour input with ffmpeg, which takes some minutes; it is kept in build-bench/bench-data.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh g++ cmake make ffmpeg libcli11-dev nlohmann-json3-dev
launcher=()
if command -v ccache >/dev/null 2>&1; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DBOXWEAVE_SANITIZE=OFF -DBOXWEAVE_TESTS=OFF \
  -DBOXWEAVE_BENCH=ON -DBOXWEAVE_TOOLS=ON "${launcher[@]}" >/dev/null
cmake --build build-bench -j "$(nproc)" --target boxweave boxweave_plugin record_bench
./build-bench/record_bench "$@"
