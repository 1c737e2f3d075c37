#!/usr/bin/env bash
# Builds the benchmarks in build-bench (Release, no sanitizer) and runs them.
#   scripts/bench.sh [ARGS]          record_bench, then play_bench, each with ARGS (options both take,
#                                    e.g. --long-minutes 2 --runs 1 for a quick trial)
#   scripts/bench.sh record [ARGS]   record_bench only   (see 'build-bench/record_bench --help')
#   scripts/bench.sh play [ARGS]     play_bench only     (see 'build-bench/play_bench --help')
#   scripts/bench.sh large           the recording past 4 GiB, both ways, checked by ffprobe, ffmpeg
#                                    and play (a test too long for the suite; build-large, Release)
# The first run of record_bench makes its one-hour input with ffmpeg, which takes some minutes;
# play_bench makes its long input from the one-minute one in seconds. Both are kept in
# build-bench/bench-data.
set -euo pipefail
cd "$(dirname "$0")/.."
benches=(record_bench play_bench)
case "${1:-}" in
  record) benches=(record_bench); shift ;;
  play) benches=(play_bench); shift ;;
  large)
    scripts/build.sh build-large -DCMAKE_BUILD_TYPE=Release -DBOXWEAVE_TESTS=ON -DBOXWEAVE_TOOLS=ON \
      -DBOXWEAVE_SANITIZE=OFF -DBOXWEAVE_TSAN=OFF -DBOXWEAVE_BENCH=OFF -DBOXWEAVE_FUZZ=OFF
    BOXWEAVE_LARGE=1 exec build-large/boxweave_tests --gtest_filter='LargeRecording.*' ;;
  -*|"") ;;
  *) echo "usage: scripts/bench.sh [record|play] [ARGS] | large" >&2; exit 2 ;;
esac
scripts/deps.sh g++ cmake make ffmpeg libcli11-dev nlohmann-json3-dev
launcher=()
if command -v ccache >/dev/null 2>&1; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DBOXWEAVE_SANITIZE=OFF -DBOXWEAVE_TESTS=OFF \
  -DBOXWEAVE_BENCH=ON -DBOXWEAVE_TOOLS=ON "${launcher[@]}" >/dev/null
cmake --build build-bench -j "$(nproc)" --target boxweave boxweave_plugin "${benches[@]}"
for bench in "${benches[@]}"; do
  ./build-bench/"$bench" "$@"
done
