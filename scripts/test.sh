#!/usr/bin/env bash
# The whole test suite: a plain build, then the same under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh g++ cmake make libgtest-dev ffmpeg
jobs=$(nproc)
scripts/build.sh build
(cd build && ctest --output-on-failure -j "$jobs")
scripts/build.sh build-asan -DBOXWEAVE_SANITIZE=ON
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest --output-on-failure -j "$jobs")
echo "all tests passed (plain and sanitized)"
